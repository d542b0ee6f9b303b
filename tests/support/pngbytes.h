// PNG files built byte by byte, for tests that need files no encoder writes:
// headers that lie about their size, and valid images of zeros that are
// enormous decoded but small on disk.
#pragma once

#include <QByteArray>

#include <zlib.h>

namespace orvane::test {

inline void put16be(QByteArray& b, quint32 v) { b.append(char(v >> 8)).append(char(v)); }
inline void put32be(QByteArray& b, quint32 v) { put16be(b, v >> 16); put16be(b, v & 0xffff); }

/// A zlib stream of count zero bytes, made without compressing them all: one
/// megabyte of zeros deflated on its own (ending on a full flush, so that it
/// refers to nothing before it) is repeated, then the rest, then a final empty
/// block and the Adler-32 of the whole.
inline QByteArray zerosZlib(quint64 count)
{
    auto deflateZeros = [](quint64 n) {
        z_stream z{};
        deflateInit2(&z, 9, Z_DEFLATED, -15, 9, Z_DEFAULT_STRATEGY);
        const QByteArray in(qsizetype(n), '\0');
        QByteArray out(qsizetype(deflateBound(&z, uLong(n)) + 64), '\0');
        z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.constData()));
        z.avail_in = uInt(n);
        z.next_out = reinterpret_cast<Bytef*>(out.data());
        z.avail_out = uInt(out.size());
        deflate(&z, Z_FULL_FLUSH);
        out.truncate(qsizetype(z.total_out));
        deflateEnd(&z);
        return out;
    };
    constexpr quint64 chunk = 1 << 20;
    const QByteArray whole = deflateZeros(chunk);
    QByteArray stream("\x78\xda", 2);
    for (quint64 i = 0; i < count / chunk; ++i)
        stream += whole;
    if (count % chunk)
        stream += deflateZeros(count % chunk);
    stream.append('\x03').append('\x00');
    // Adler-32 of zeros: the sum stays 1, the sum of sums counts the bytes.
    put32be(stream, quint32((count % 65521) << 16 | 1));
    return stream;
}

/// One chunk: length, type, data and CRC.
inline QByteArray pngChunk(const char* type, const QByteArray& data)
{
    QByteArray chunk;
    put32be(chunk, quint32(data.size()));
    const QByteArray body = QByteArray(type, 4) + data;
    chunk += body;
    put32be(chunk, quint32(crc32(0, reinterpret_cast<const Bytef*>(body.constData()), uInt(body.size()))));
    return chunk;
}

/// An 8-bit PNG: colourType 0 grey, 2 RGB, 6 RGBA; idat is the zlib stream of filtered rows.
inline QByteArray png(quint32 width, quint32 height, int colourType, const QByteArray& idat)
{
    QByteArray ihdr;
    put32be(ihdr, width);
    put32be(ihdr, height);
    ihdr.append(char(8)).append(char(colourType)).append('\0').append('\0').append('\0');
    return QByteArray("\x89PNG\r\n\x1a\n", 8) + pngChunk("IHDR", ihdr) + pngChunk("IDAT", idat)
        + pngChunk("IEND", {});
}

/// A complete, valid PNG of zeros: every row is filter byte 0 and zero samples.
inline QByteArray zerosPng(quint32 width, quint32 height, int colourType)
{
    const int channels = colourType == 6 ? 4 : colourType == 2 ? 3 : 1;
    return png(width, height, colourType, zerosZlib(quint64(height) * (1 + quint64(width) * channels)));
}

} // namespace orvane::test
