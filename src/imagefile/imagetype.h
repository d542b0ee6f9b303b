// The type of an image file, identified by its MIME name.
#pragma once

#include <optional>

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace orvane {

/// A file type, identified by its MIME name ("image/png"). The eight types
/// Orvane accepts come from a table of our own (so that image/heic is a type of
/// its own and the preferred extensions are png, jpeg, tiff, bmp, gif, heic,
/// heif, webp); every other type comes from QMimeDatabase.
class ImageType {
public:
    ImageType() = default; // the generic data type
    explicit ImageType(QString mimeName);

    static ImageType png();
    static ImageType jpeg();
    static ImageType tiff();
    static ImageType bmp();
    static ImageType gif();
    static ImageType heic();
    static ImageType heif();
    static ImageType webP();
    /// application/octet-stream, to which every file type conforms.
    static ImageType data();

    /// The type for a name extension (any case; without the dot), among types
    /// conforming to data; absent (nullopt) when nothing is known for it.
    static std::optional<ImageType> fromExtension(const QString& extension);
    /// The type from a file's first bytes (signatures of the eight accepted
    /// types, then QMimeDatabase by content); absent when nothing is found.
    static std::optional<ImageType> fromContent(const QByteArray& head);

    QString mimeName() const { return m_mime; }
    /// The preferred name extension without the dot; empty when the type has none.
    QString preferredExtension() const;
    /// Equal, or the type inherits from other (data is inherited by all).
    bool conforms(const ImageType& other) const;

    friend bool operator==(const ImageType&, const ImageType&) = default;

private:
    QString m_mime = QStringLiteral("application/octet-stream");
};

} // namespace orvane
