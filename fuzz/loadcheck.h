// Opening one file the way the window does, with every answer checked for
// consistency: shared by the load fuzz target and the regression tests that
// replay what it found.
#pragma once

#include <cstdint>

#include <QString>

namespace orvane::LoadCheck {

/// The memory ImageFile::load is told it has while checking: 8 MiB, so
/// that it refuses, from the header, any image whose decoded size and raster
/// pass 4 MiB (about half a megapixel). Big images are the hostile-size
/// tests' business; decoding them here would only slow the fuzzer down.
inline constexpr std::uint64_t availableMemory = std::uint64_t(8) << 20;

/// Calls ImageFile::initialise() and limits the memory load plans with to
/// availableMemory, for the whole process. Call once, after VIPS_INIT.
void prepare();

/// Loads the file at path with ImageFile::load, makes its buffer, asks for the
/// content rectangle at several tolerances (index against scan), crops, and
/// for small crops writes the result to savePath and reloads it; then opens
/// the file through the streamed pass (ImageFile::index and decode), which
/// must answer every tolerance as the buffer does.
/// Returns an empty string when every answer was consistent (a file that is
/// refused counts as consistent), else what went wrong. savePath may be empty
/// to skip writing. prepare() must have run.
QString check(const QString& path, const QString& savePath);

} // namespace orvane::LoadCheck
