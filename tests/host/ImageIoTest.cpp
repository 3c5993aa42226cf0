// The host's image readers and writers on their own: round trips for every
// format, mode and depth, TIFF layouts written by libtiff directly, the
// bounded tile cache, the result tile store, the BigTIFF decision and the
// metadata of BigTIFF files.
#include <gtest/gtest.h>
#include <tiffio.h>

#include <exiv2/exiv2.hpp>

#include <cstring>

#include "HostTestUtil.h"
#include "host/ImageFiles.h"
#include "host/Metadata.h"
#include "host/TiffFile.h"
#include "host/TiffMetadata.h"

namespace Curvana::Host::Test {
namespace {

TEST(SixteenBit, HostValuesSurviveTheFileRange) {
    for (uint32_t h = 0; h <= 32768; ++h)
        ASSERT_EQ(hostFromFile16(fileFromHost16(h)), h);
    EXPECT_EQ(fileFromHost16(32768), 65535);
    EXPECT_EQ(hostFromFile16(65535), 32768);
    EXPECT_EQ(hostFromFile16(0), 0);
    EXPECT_EQ(hostFromFile16(32768), 16384);  // Lab's neutral chroma stays neutral
    for (uint32_t v = 1; v <= 65535; ++v)
        ASSERT_LE(hostFromFile16(v - 1), hostFromFile16(v));
}

struct Layout {
    Mode mode;
    int depth;
    Alpha alpha = Alpha::None;
};

// ---- The results: tiles completed, spilled, filled from the source -----------

// Writes `written` through a result (TIFF unless told) over `source` in
// 50-pixel squares (plane by plane over the whole image when planesFirst), up
// to column writeRight, and reads the file back.
Raster writeThroughResult(const fs::path& folder, const Raster& source, const Raster& written,
                          bool planesFirst, int32_t writeRight, uint64_t budget,
                          const std::vector<uint8_t>& icc = {},
                          FileFormat format = FileFormat::Tiff) {
    MemorySource src(folder / "src", FileFormat::Png, source, icc);
    ResultOptions options;
    options.budget = budget;
    options.icc = icc;
    const fs::path out = folder / (format == FileFormat::Tiff ? "out.tif" : "out.png");
    auto result = createResult(format, out, src, options);
    const ImageInfo& info = source.info;
    const size_t bps = info.bytesPerSample();
    const int32_t step = 50;  // deliberately not aligned with the 256-pixel tiles
    std::vector<uint8_t> plane(static_cast<size_t>(step) * step * bps);
    for (int outer = 0; outer < (planesFirst ? info.planes() : 1); ++outer)
        for (int32_t top = 0; top < info.height; top += step)
            for (int32_t left = 0; left < writeRight; left += step)
                for (int p = planesFirst ? outer : 0; p < (planesFirst ? outer + 1 : info.planes());
                     ++p) {
                    const CvRect r{left, top, std::min(left + step, writeRight),
                                   std::min(top + step, info.height)};
                    const int32_t w = r.right - r.left;
                    extractPlane(
                        written.row(r.top) + static_cast<size_t>(r.left) * written.pixelBytes(),
                        static_cast<ptrdiff_t>(written.rowBytes()), info.planes(), p, bps, w,
                        r.bottom - r.top, plane.data(), static_cast<ptrdiff_t>(w * bps));
                    result->writePlane(r, p, plane.data(), static_cast<ptrdiff_t>(w * bps));
                }
    result->finish();
    return readWhole(out);
}

class TiffRoundTrip : public ::testing::TestWithParam<Layout> {};

TEST_P(TiffRoundTrip, ResultAndReaderAgreeExactly) {
    ScratchDir dir;
    const ImageInfo info{300, 170, GetParam().mode, GetParam().depth, GetParam().alpha};
    const Raster original = randomRaster(info, 7);
    const Raster back = writeThroughResult(dir.path(), original, original, false, info.width,
                                           64 << 20, makeIcc(info.mode));
    EXPECT_EQ(back.info.mode, info.mode);
    EXPECT_EQ(back.info.alpha, info.alpha);
    EXPECT_EQ(openImage(dir / "out.tif")->iccProfile(), makeIcc(info.mode));
    EXPECT_EQ(back.data, original.data);
}

INSTANTIATE_TEST_SUITE_P(EveryModeAndDepth, TiffRoundTrip,
                         ::testing::Values(Layout{Mode::Gray, 8}, Layout{Mode::Gray, 16},
                                           Layout{Mode::RGB, 8}, Layout{Mode::RGB, 16},
                                           Layout{Mode::CMYK, 8}, Layout{Mode::CMYK, 16},
                                           Layout{Mode::Lab, 8}, Layout{Mode::Lab, 16},
                                           Layout{Mode::RGB, 8, Alpha::Straight},
                                           Layout{Mode::Lab, 16, Alpha::Premultiplied}));

// Writes a TIFF with libtiff itself: strips or tiles, contiguous or separate planes.
struct RawTiff {
    uint32_t width = 203, height = 77;
    uint16_t samples = 3, bits = 16, photometric = PHOTOMETRIC_RGB, planar = PLANARCONFIG_CONTIG;
    uint16_t compression = COMPRESSION_LZW;
    uint32_t rowsPerStrip = 7, tile = 0;  // tile > 0: tiled
    std::vector<uint16_t> values = {};    // file values, contiguous, samples per pixel

    uint16_t at(uint32_t x, uint32_t y, uint32_t s) const {
        return values[(y * width + x) * samples + s];
    }

    void write(const fs::path& path) {
        std::mt19937 rng(3);
        values.resize(static_cast<size_t>(width) * height * samples);
        for (auto& v : values)
            v = static_cast<uint16_t>(bits == 8 ? rng() % 256 : rng() % 65536);
        TIFF* tif = TIFFOpen(path.c_str(), "w");
        TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, width);
        TIFFSetField(tif, TIFFTAG_IMAGELENGTH, height);
        TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, samples);
        TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, bits);
        TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, photometric);
        TIFFSetField(tif, TIFFTAG_PLANARCONFIG, planar);
        TIFFSetField(tif, TIFFTAG_COMPRESSION, compression);
        if (photometric == PHOTOMETRIC_SEPARATED)
            TIFFSetField(tif, TIFFTAG_INKSET, INKSET_CMYK);
        std::vector<uint16_t> map(256);
        for (size_t i = 0; i < map.size(); ++i)
            map[i] = static_cast<uint16_t>(i * 257);
        if (photometric == PHOTOMETRIC_PALETTE)
            TIFFSetField(tif, TIFFTAG_COLORMAP, map.data(), map.data(), map.data());
        const uint16_t alpha = EXTRASAMPLE_UNASSALPHA;
        if (photometric == PHOTOMETRIC_RGB && samples == 4)
            TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, 1, &alpha);
        const uint32_t bw = tile ? tile : width, bh = tile ? tile : rowsPerStrip;
        if (tile) {
            TIFFSetField(tif, TIFFTAG_TILEWIDTH, tile);
            TIFFSetField(tif, TIFFTAG_TILELENGTH, tile);
        } else {
            TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, rowsPerStrip);
        }
        const bool separate = planar == PLANARCONFIG_SEPARATE;
        const uint32_t perBlock = separate ? 1 : samples;
        std::vector<uint8_t> block(static_cast<size_t>(bw) * bh * perBlock * (bits / 8));
        for (uint32_t s = 0; s < (separate ? samples : 1u); ++s)
            for (uint32_t y0 = 0; y0 < height; y0 += bh)
                for (uint32_t x0 = 0; x0 < width; x0 += bw) {
                    std::fill(block.begin(), block.end(), 0);
                    const uint32_t rows = tile ? bh : std::min(bh, height - y0);
                    for (uint32_t y = 0; y < rows && y0 + y < height; ++y)
                        for (uint32_t x = 0; x < bw && x0 + x < width; ++x)
                            for (uint32_t k = 0; k < perBlock; ++k) {
                                const uint16_t v = at(x0 + x, y0 + y, separate ? s : k);
                                const size_t i = (static_cast<size_t>(y) * bw + x) * perBlock + k;
                                if (bits == 8)
                                    block[i] = static_cast<uint8_t>(v);
                                else
                                    std::memcpy(block.data() + 2 * i, &v, 2);
                            }
                    const tmsize_t size = static_cast<tmsize_t>(static_cast<size_t>(bw) * rows *
                                                                perBlock * (bits / 8));
                    if (tile)
                        TIFFWriteEncodedTile(
                            tif, TIFFComputeTile(tif, x0, y0, 0, static_cast<uint16_t>(s)),
                            block.data(), size);
                    else
                        TIFFWriteEncodedStrip(tif,
                                              TIFFComputeStrip(tif, y0, static_cast<uint16_t>(s)),
                                              block.data(), size);
                }
        TIFFClose(tif);
    }
};

// Checks readPlane over an odd rectangle against the file values.
void expectPlanesMatch(const RawTiff& raw, const fs::path& path,
                       int (*expected)(const RawTiff&, uint32_t, uint32_t, uint32_t)) {
    SourceOptions options;
    options.cacheBudget = 4096;  // far below the image: blocks come and go
    auto source = openImage(path, options);
    const CvRect rect{13, 5, 190, 71};
    const int32_t w = rect.right - rect.left, h = rect.bottom - rect.top;
    const size_t bps = source->info().bytesPerSample();
    std::vector<uint8_t> plane(static_cast<size_t>(w) * h * bps);
    for (int p = 0; p < source->info().planes(); ++p) {
        source->readPlane(rect, p, plane.data(), static_cast<ptrdiff_t>(w * bps));
        for (int32_t y = 0; y < h; ++y)
            for (int32_t x = 0; x < w; ++x) {
                int got;
                if (bps == 1)
                    got = plane[static_cast<size_t>(y) * w + x];
                else {
                    uint16_t v;
                    std::memcpy(&v, plane.data() + 2 * (static_cast<size_t>(y) * w + x), 2);
                    got = v;
                }
                ASSERT_EQ(got,
                          expected(raw, static_cast<uint32_t>(rect.left + x),
                                   static_cast<uint32_t>(rect.top + y), static_cast<uint32_t>(p)))
                    << "plane " << p << " at " << x << "," << y;
            }
    }
}

int asHost(const RawTiff& r, uint32_t x, uint32_t y, uint32_t s) {
    return r.bits == 8 ? r.at(x, y, s) : hostFromFile16(r.at(x, y, s));
}

int inverted(const RawTiff& r, uint32_t x, uint32_t y, uint32_t) {
    return 255 - static_cast<int>(r.at(x, y, 0));
}

int signedChroma(const RawTiff& r, uint32_t x, uint32_t y, uint32_t s) {
    const uint16_t v = r.at(x, y, s);
    return static_cast<int>(hostFromFile16(s == 0 ? v : static_cast<uint16_t>(v ^ 0x8000)));
}

int grey(const RawTiff& r, uint32_t x, uint32_t y, uint32_t) {  // the test's colour map
    return r.at(x, y, 0);
}

struct TiffCase {
    const char* name;
    RawTiff raw;
    Mode mode;
    int (*expected)(const RawTiff&, uint32_t, uint32_t, uint32_t);
};

class TiffReader : public ::testing::TestWithParam<TiffCase> {};

TEST_P(TiffReader, ReadsWhatTheFileHolds) {
    ScratchDir dir;
    RawTiff raw = GetParam().raw;
    raw.write(dir / "t.tif");
    EXPECT_EQ(openImage(dir / "t.tif")->info().mode, GetParam().mode);
    expectPlanesMatch(raw, dir / "t.tif", GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, TiffReader,
    ::testing::Values(
        TiffCase{"StripsRgb16", RawTiff{}, Mode::RGB, asHost},
        TiffCase{"SeparateCmyk8",
                 RawTiff{.samples = 4,
                         .bits = 8,
                         .photometric = PHOTOMETRIC_SEPARATED,
                         .planar = PLANARCONFIG_SEPARATE},
                 Mode::CMYK, asHost},
        TiffCase{"TiledSeparateDeflate",
                 RawTiff{.planar = PLANARCONFIG_SEPARATE, .compression = kTiffDeflate, .tile = 32},
                 Mode::RGB, asHost},
        TiffCase{"MinIsWhite",
                 RawTiff{.samples = 1,
                         .bits = 8,
                         .photometric = PHOTOMETRIC_MINISWHITE,
                         .compression = COMPRESSION_NONE},
                 Mode::Gray, inverted},
        TiffCase{"CieLab", RawTiff{.photometric = PHOTOMETRIC_CIELAB}, Mode::Lab, signedChroma},
        TiffCase{"RgbWithAlpha", RawTiff{.samples = 4, .bits = 8}, Mode::RGB, asHost},
        TiffCase{"Palette", RawTiff{.samples = 1, .bits = 8, .photometric = PHOTOMETRIC_PALETTE},
                 Mode::RGB, grey}),
    [](const auto& test) { return std::string(test.param.name); });

// The palette PNG with transparency that once overflowed its row buffer:
// expanded to RGB with an alpha plane.
TEST(PngReader, ExpandsAPaletteWithTransparency) {
    const Raster r = readWhole(regressionFile("png/palette-trns.png"));
    ASSERT_EQ(r.info.planes(), 4);
    const uint8_t colours[3][4] = {{255, 0, 0, 0}, {0, 255, 0, 128}, {0, 0, 255, 255}};
    for (int32_t y = 0; y < 2; ++y)
        for (int32_t x = 0; x < 4; ++x)
            EXPECT_EQ(std::memcmp(r.row(y) + 4 * x, colours[(x + y) % 3], 4), 0) << x << "," << y;
}

TEST(TiffCache, KeepsWithinTheBudget) {
    ScratchDir dir;
    RawTiff raw;
    raw.width = 512;
    raw.height = 512;
    raw.tile = 64;  // 64 x 64 x 3 x 2 = 24 KiB a tile
    raw.write(dir / "big.tif");
    SourceOptions options;
    options.cacheBudget = 100 << 10;
    TiffSource source(dir / "big.tif", options);
    std::vector<uint16_t> band(512 * 16);
    for (int32_t y = 0; y < 512; y += 16)
        source.readPlane(CvRect{0, y, 512, y + 16}, 1, band.data(), 1024);
    EXPECT_LE(source.peakCacheBytes(), options.cacheBudget + 24 * 1024);
    // A row of 8 tiles does not fit in the budget: tiles were dropped and decoded again.
    EXPECT_GT(source.blocksDecoded(), 64u);
}

TEST(TiffCache, ReportsATruncatedFileAsAnInputError) {
    ScratchDir dir;
    RawTiff raw;
    raw.compression = COMPRESSION_NONE;
    raw.width = 400;
    raw.height = 300;
    raw.write(dir / "cut.tif");
    fs::resize_file(dir / "cut.tif", fs::file_size(dir / "cut.tif") / 2);
    try {
        Raster r = readWhole(dir / "cut.tif");
        FAIL() << "a truncated file was read";
    } catch (const HostError& e) {
        EXPECT_NE(std::string(e.what()).find("cut.tif"), std::string::npos) << e.what();
    }
}

TEST(BigTiff, ChosenOnlyWhenTheFileCouldPassFourGiB) {
    EXPECT_TRUE(needsBigTiff(ImageInfo{40000, 25000, Mode::RGB, 8}, 256, true));    // LZW: 4.5 GB
    EXPECT_FALSE(needsBigTiff(ImageInfo{36000, 36000, Mode::RGB, 8}, 256, false));  // 3.9 GB
}

// A tiled TIFF whose every tile is `tile`.
void writeEveryTile(const fs::path& path, const ImageInfo& info, const TiffWriteOptions& options,
                    const Raster& tile) {
    TiffTileWriter writer(path, info, options);
    for (uint32_t ty = 0; ty < writer.tilesDown(); ++ty)
        for (uint32_t tx = 0; tx < writer.tilesAcross(); ++tx)
            writer.writeTile(tx, ty, tile.data.data());
    writer.close();
}

TEST(BigTiff, WriterProducesAReadableBigTiff) {
    ScratchDir dir;
    const ImageInfo info{40, 30, Mode::Gray, 16};
    TiffWriteOptions options;
    options.bigTiff = true;
    options.tileSize = 32;
    const Raster original = randomRaster(ImageInfo{32, 32, Mode::Gray, 16}, 5);
    writeEveryTile(dir / "b.tif", info, options, original);
    std::ifstream in(dir / "b.tif", std::ios::binary);
    char magic[4];
    in.read(magic, 4);
    EXPECT_EQ(magic[2], 43);  // BigTIFF version 43
    const Raster back = readWhole(dir / "b.tif");
    EXPECT_EQ(back.info.width, 40);
    EXPECT_EQ(std::memcmp(back.row(0), original.row(0), 64), 0);
}

// Exiv2 cannot write BigTIFF: libtiff adds the EXIF in place. The file
// keeps its pixels and XMP, libtiff itself finds standard EXIF and GPS
// directories, and reading it back gives every entry exactly (rationals
// included, which libtiff holds as floating point), a tag libtiff does not
// know among them.
TEST(BigTiff, TakesTheExifInPlaceAndGivesItBackExactly) {
    ScratchDir dir;
    const fs::path path = dir / "big.tif";
    const ImageInfo info{40, 30, Mode::RGB, 8};
    Exiv2::XmpData xmp;
    xmp["Xmp.xmp.Rating"] = 4;
    TiffWriteOptions options;
    options.bigTiff = true;
    options.tileSize = 32;
    ASSERT_EQ(Exiv2::XmpParser::encode(options.xmpPacket, xmp), 0);
    writeEveryTile(path, info, options, randomRaster(ImageInfo{32, 32, Mode::RGB, 8}, 9));
    const Raster pixels = readWhole(path);

    auto exif = std::make_shared<Exiv2::ExifData>();
    Exiv2::ExifData& e = *exif;
    e["Exif.Image.Make"] = "Curvana";
    e["Exif.Image.Model"] = "Sample Room Camera";
    e["Exif.Image.Orientation"] = uint16_t(6);
    e["Exif.Image.XResolution"] = Exiv2::URational(300, 1);
    e["Exif.Photo.FocalLength"] = Exiv2::URational(15, 1);
    e["Exif.Photo.ExposureTime"] = Exiv2::URational(1, 250);
    e["Exif.Photo.FNumber"] = Exiv2::URational(14, 5);
    e["Exif.Photo.ISOSpeedRatings"] = "200 400";
    e["Exif.Photo.LensModel"] = "Sample Fisheye 15mm";
    e["Exif.Photo.0xfe01"] = uint32_t(7);
    e["Exif.GPSInfo.GPSLatitudeRef"] = "N";
    e["Exif.GPSInfo.GPSLatitude"] = "52/1 31/1 617/50";
    PhotoMetadata metadata;
    metadata.exif = exif;
    EXPECT_EQ(writeMetadata(path, FileFormat::Tiff, info, metadata, "big.tif"), "");

    EXPECT_TRUE(isBigTiff(path));
    EXPECT_EQ(maxDifference(readWhole(path), pixels), 0);
    {
        const TiffHandle tif(TIFFOpen(path.c_str(), "r"));
        ASSERT_TRUE(tif);
        char* make = nullptr;
        ASSERT_TRUE(TIFFGetField(tif.get(), TIFFTAG_MAKE, &make));
        EXPECT_STREQ(make, "Curvana");
        uint64_t exifOffset = 0;
        ASSERT_TRUE(TIFFGetField(tif.get(), TIFFTAG_EXIFIFD, &exifOffset));
        ASSERT_TRUE(TIFFReadEXIFDirectory(tif.get(), exifOffset));
        float focal = 0;
        ASSERT_TRUE(TIFFGetField(tif.get(), EXIFTAG_FOCALLENGTH, &focal));
        EXPECT_EQ(focal, 15.0f);
    }

    const PhotoMetadata back = readMetadata(path);
    EXPECT_TRUE(back.warnings.empty()) << back.warnings.front();
    EXPECT_EQ(back.xmpPacket, options.xmpPacket);
    EXPECT_EQ(back.focalLengthMm, 15.0);
    ASSERT_TRUE(back.exif);
    for (const Exiv2::Exifdatum& datum : e) {
        const auto found = back.exif->findKey(Exiv2::ExifKey(datum.key()));
        ASSERT_NE(found, back.exif->end()) << datum.key();
        EXPECT_EQ(found->toString(), datum.toString()) << datum.key();
    }
    EXPECT_NE(back.moduleXmp.find("Sample Fisheye 15mm"), std::string::npos) << back.moduleXmp;
    EXPECT_NE(back.moduleXmp.find("Rating"), std::string::npos);
}

class PngRoundTrip : public ::testing::TestWithParam<Layout> {};

TEST_P(PngRoundTrip, IsExactWithItsProfile) {
    ScratchDir dir;
    const ImageInfo info{61, 43, GetParam().mode, GetParam().depth, GetParam().alpha};
    const Raster original = randomRaster(info, 11);
    writePng(dir / "p.png", original, makeIcc(info.mode));
    auto source = openImage(dir / "p.png");
    EXPECT_EQ(source->format(), FileFormat::Png);
    EXPECT_EQ(source->info().alpha, info.alpha);
    EXPECT_EQ(source->iccProfile(), makeIcc(info.mode));
    EXPECT_EQ(readWhole(dir / "p.png").data, original.data);
}

INSTANTIATE_TEST_SUITE_P(GreyAndRgb, PngRoundTrip,
                         ::testing::Values(Layout{Mode::Gray, 8}, Layout{Mode::Gray, 16},
                                           Layout{Mode::RGB, 8}, Layout{Mode::RGB, 16},
                                           Layout{Mode::Gray, 8, Alpha::Straight},
                                           Layout{Mode::RGB, 16, Alpha::Straight}));

class JpegRoundTrip : public ::testing::TestWithParam<Mode> {};

TEST_P(JpegRoundTrip, StaysCloseAndKeepsItsProfile) {
    ScratchDir dir;
    const ImageInfo info{64, 48, GetParam(), 8};
    Raster original = Raster::allocate(info);
    for (int32_t y = 0; y < info.height; ++y)  // smooth content: JPEG's loss stays small
        for (int32_t x = 0; x < info.width; ++x)
            for (int p = 0; p < info.planes(); ++p)
                original.row(y)[static_cast<size_t>(x) * info.planes() + p] =
                    static_cast<uint8_t>(40 + 2 * x + y + 30 * p);
    writeJpeg(dir / "j.jpg", original, makeIcc(info.mode), 95);
    auto source = openImage(dir / "j.jpg");
    EXPECT_EQ(source->info().mode, info.mode);
    EXPECT_EQ(source->iccProfile(), makeIcc(info.mode));
    const Raster back = readWhole(dir / "j.jpg");
    EXPECT_LT(meanDifference(back, original), 2.0);  // also catches an inverted CMYK
}

INSTANTIATE_TEST_SUITE_P(GreyRgbCmyk, JpegRoundTrip,
                         ::testing::Values(Mode::Gray, Mode::RGB, Mode::CMYK));

TEST(PngReader, RefusesATruncatedFile) {
    ScratchDir dir;
    writePng(dir / "p.png", randomRaster(ImageInfo{128, 128, Mode::RGB, 8}, 2), {});
    fs::resize_file(dir / "p.png", fs::file_size(dir / "p.png") / 2);
    // The rows are decoded behind the open: the read that needs them fails.
    EXPECT_THROW(readWhole(dir / "p.png"), HostError);
    EXPECT_THROW(readPng(dir / "p.png"), HostError);
}

TEST(Formats, AreChosenByExtensionAndCheckedAgainstTheImage) {
    EXPECT_EQ(formatFromExtension("a/b.TIFF"), FileFormat::Tiff);
    EXPECT_EQ(formatFromExtension("b.jpeg"), FileFormat::Jpeg);
    EXPECT_EQ(formatFromExtension("b.png"), FileFormat::Png);
    EXPECT_FALSE(formatFromExtension("b.bmp").has_value());
    EXPECT_THROW(checkFormatHolds(FileFormat::Jpeg, ImageInfo{1, 1, Mode::RGB, 16}, "x.jpg"),
                 HostError);
    EXPECT_THROW(checkFormatHolds(FileFormat::Png, ImageInfo{1, 1, Mode::CMYK, 8}, "x.png"),
                 HostError);
    EXPECT_NO_THROW(checkFormatHolds(FileFormat::Jpeg, ImageInfo{1, 1, Mode::CMYK, 8}, "x.jpg"));
}

// /dev/full fails every write with ENOSPC: each writer says the disk is full.
TEST(ResultWriters, SayTheDiskIsFull) {
    ScratchDir dir;
    writePng(dir / "src.png", randomRaster(ImageInfo{300, 200, Mode::RGB, 8}, 6), {});
    auto source = openImage(dir / "src.png");
    ResultOptions options;
    options.name = "photo.out";  // what the user named, not the path written
    options.spillFolder = dir.path();
    for (FileFormat format : {FileFormat::Tiff, FileFormat::Png, FileFormat::Jpeg}) {
        try {
            createResult(format, "/dev/full", *source, options)->finish();
            ADD_FAILURE() << formatName(format) << " wrote to a full disk";
        } catch (const HostError& e) {
            EXPECT_EQ(e.code(), kExitOutput);
            EXPECT_EQ(std::string(e.what()), "photo.out: cannot write, the disk is full");
        }
    }
}

TEST(TiffResult, SpillsIncompleteTilesAndStillWritesEverySample) {
    ScratchDir dir;
    const ImageInfo info{700, 530, Mode::RGB, 16};
    const Raster source = randomRaster(info, 1), written = randomRaster(info, 2);
    // Plane by plane over the whole image: every tile stays incomplete until the last
    // plane, far beyond a budget of two tiles, so tiles go to disk and come back.
    const Raster out =
        writeThroughResult(dir.path(), source, written, true, info.width, 2 * 256 * 256 * 6);
    EXPECT_EQ(out.data, written.data);
}

// Both kinds of result start empty and take what the filter left unwritten
// from the source at the end.
class UnwrittenSamples : public ::testing::TestWithParam<FileFormat> {};

TEST_P(UnwrittenSamples, KeepTheSource) {
    ScratchDir dir;
    const ImageInfo info{300, 200, Mode::RGB, 16};
    const Raster source = randomRaster(info, 3), written = randomRaster(info, 4);
    const Raster out =
        writeThroughResult(dir.path(), source, written, false, 120, 64 << 20, {}, GetParam());
    const size_t px = info.planes() * info.bytesPerSample();
    for (int32_t y = 0; y < info.height; ++y)
        for (int32_t x = 0; x < info.width; ++x)
            ASSERT_EQ(
                std::memcmp(out.row(y) + x * px, (x < 120 ? written : source).row(y) + x * px, px),
                0)
                << x << "," << y;
}

INSTANTIATE_TEST_SUITE_P(TiffAndPng, UnwrittenSamples,
                         ::testing::Values(FileFormat::Tiff, FileFormat::Png));

}  // namespace
}  // namespace Curvana::Host::Test
