// An image source whose reads and decodes wait until the test lets each file
// go, so that a test decides the order in which files finish. Every job runs
// on a thread of its own pool, so a held file never keeps another from
// starting.
#pragma once

#include <condition_variable>
#include <mutex>

#include <QFileInfo>
#include <QSet>
#include <QThreadPool>

#include "model/imagesource.h"

namespace orvane::test {

class HeldImageSource : public ImageSource {
public:
    enum class Step { Index, Decode, Save };

    ~HeldImageSource() override { releaseAll(); }

    void run(std::uint64_t, std::function<void()> job) override { pool().start(std::move(job)); }
    int parallelReads() override { return 32; }

    std::optional<ImageFile::Indexed> index(const QString& path, bool withPreview) override
    {
        wait(Step::Index, path);
        return ImageSource::index(path, withPreview);
    }
    std::optional<ImageFile::Decoded> decode(const QString& path) override
    {
        wait(Step::Decode, path);
        return ImageSource::decode(path);
    }

    bool saveCropped(const ImageFile::Decoded& decoded, const PixelRect& rect, const QString& path,
                     const ImageType& type) override
    {
        wait(Step::Save, path);
        return ImageSource::saveCropped(decoded, rect, path, type);
    }

    /// From now on, files wait at step until released by name (a save by
    /// its destination's name).
    void hold(Step step) { change([&] { at(step).held = true; }); }
    /// Lets the file with this name through step (now or when it gets there).
    void release(Step step, const QString& fileName) { change([&] { at(step).released.insert(fileName); }); }
    /// Lets every file through and holds none any more.
    void releaseAll()
    {
        change([&] {
            for (Gate& gate : m_gates)
                gate.held = false;
        });
    }
    /// How many files wait at step now.
    int waiting(Step step)
    {
        std::lock_guard lock(m_mutex);
        return at(step).waiting;
    }

private:
    struct Gate {
        bool held = false;
        QSet<QString> released;
        int waiting = 0;
    };

    static QThreadPool& pool()
    {
        // Lives as long as the process: a job may hold the last reference
        // to its source, and a pool must not wait for itself.
        static QThreadPool* threads = [] {
            auto* made = new QThreadPool;
            made->setMaxThreadCount(64);
            return made;
        }();
        return *threads;
    }
    Gate& at(Step step) { return m_gates[int(step)]; }
    template <typename Change> void change(Change apply)
    {
        {
            std::lock_guard lock(m_mutex);
            apply();
        }
        m_changed.notify_all();
    }

    void wait(Step step, const QString& path)
    {
        const QString name = QFileInfo(path).fileName();
        std::unique_lock lock(m_mutex);
        Gate& gate = at(step);
        ++gate.waiting;
        m_changed.wait(lock, [&] { return !gate.held || gate.released.contains(name); });
        --gate.waiting;
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    Gate m_gates[3];
};

} // namespace orvane::test
