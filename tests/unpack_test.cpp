// SPDX-License-Identifier: Apache-2.0
// Compressed files read as what they hold: in order, back and forth, joined, cut, damaged.
#include "common/unpack.h"
#include "support/support.h"

#include <algorithm>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>
#include <zlib.h>
#include <zstd.h>

using tools::Unpacker;
using Format = Unpacker::Format;

namespace {

std::string gzipped(const std::string &text) {
    z_stream stream = {};
    deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
    std::string out(deflateBound(&stream, text.size()) + 64, '\0');
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef *>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    return out;
}

std::string zstandard(const std::string &text) {
    std::string out(ZSTD_compressBound(text.size()), '\0');
    ZSTD_CCtx *context = ZSTD_createCCtx();
    ZSTD_CCtx_setParameter(context, ZSTD_c_checksumFlag, 1); // as zstd(1) does
    out.resize(ZSTD_compress2(context, out.data(), out.size(), text.data(), text.size()));
    ZSTD_freeCCtx(context);
    return out;
}

std::string packed(Format format, const std::string &text) {
    return format == Format::Gzip ? gzipped(text) : zstandard(text);
}

// Lines that differ, so that a place tells what stands there.
std::string lines(size_t bytes) {
    std::string text;
    for (unsigned i = 0; text.size() < bytes; ++i)
        text += "line " + std::to_string(i * 2654435761U) + " of many\n";
    return text;
}

struct PackedFile {
    PackedFile(Format theFormat, const std::string &bytes) : format(theFormat) {
        support::writeFile("packed", bytes);
        descriptor = open("packed", O_RDONLY | O_CLOEXEC);
    }
    ~PackedFile() { close(descriptor); }
    PackedFile(const PackedFile &) = delete;
    PackedFile &operator=(const PackedFile &) = delete;

    Format format;
    int descriptor;
};

std::string readAll(Unpacker &unpacker, size_t step) {
    std::string all;
    std::string block(step, '\0');
    for (;;) {
        const int64_t got = unpacker.readAt(all.size(), block.data(), step);
        if (got <= 0)
            return all;
        all.append(block, 0, static_cast<size_t>(got));
    }
}

struct Packed : testing::TestWithParam<Format> {
    Format format() const { return GetParam(); }
};
INSTANTIATE_TEST_SUITE_P(, Packed, testing::Values(Format::Gzip, Format::Zstd),
                         [](const auto &param) { return param.param == Format::Gzip ? "gzip" : "zstd"; });

} // namespace

TEST(PackedNames, EndInGzOrZst) {
    EXPECT_EQ(tools::packedSuffix("5-7-1-240301-0000000000.log.gz"), ".gz");
    EXPECT_EQ(tools::packedSuffix("a.zst"), ".zst");
    EXPECT_EQ(tools::packedSuffix("a.log"), "");
    EXPECT_EQ(tools::packedSuffix(".gz"), "");
    EXPECT_EQ(tools::packedSuffix("agz"), "");
}

TEST_P(Packed, IsToldByItsFirstBytes) {
    bool fewer = true;
    const std::string bytes = packed(format(), "text");
    EXPECT_EQ(Unpacker::formatOf(bytes, fewer), format());
    EXPECT_FALSE(fewer);
    EXPECT_EQ(Unpacker::formatOf(bytes.substr(0, 1), fewer), Format::None);
    EXPECT_TRUE(fewer);
    EXPECT_EQ(Unpacker::formatOf("$Header", fewer), Format::None);
    EXPECT_FALSE(fewer);
}

TEST_P(Packed, IsReadInOrder) {
    const std::string text = lines(1000000);
    const PackedFile file(format(), packed(format(), text));
    for (const size_t step : {1000U, 65536U, 300000U}) {
        Unpacker unpacker(file.descriptor, true, format(), "");
        EXPECT_EQ(readAll(unpacker, step), text);
        EXPECT_EQ(unpacker.problem, "");
    }
}

TEST_P(Packed, IsReadBackAndForth) {
    const std::string text = lines(1000000);
    const PackedFile file(format(), packed(format(), text));
    Unpacker unpacker(file.descriptor, true, format(), "");
    char block[100];
    for (const size_t at :
         {size_t{500000}, size_t{10}, size_t{70000}, size_t{999000}, size_t{300}, size_t{400000}}) {
        ASSERT_EQ(unpacker.readAt(at, block, sizeof block), 100);
        EXPECT_EQ(std::string(block, 100), text.substr(at, 100)) << at;
    }
    EXPECT_EQ(unpacker.size(), text.size());
    EXPECT_EQ(unpacker.readAt(text.size() - 10, block, sizeof block), 10);
    EXPECT_EQ(unpacker.readAt(text.size(), block, sizeof block), 0);
    EXPECT_EQ(unpacker.readAt(text.size() + 5, block, sizeof block), 0);
    EXPECT_EQ(unpacker.problem, "");
}

TEST_P(Packed, PartsThatFollowEachOtherAreOneFile) {
    const std::string text = lines(100000);
    const PackedFile file(format(),
                          packed(format(), text) + packed(format(), "") + packed(format(), "end\n"));
    Unpacker unpacker(file.descriptor, true, format(), "");
    EXPECT_EQ(readAll(unpacker, 5000), text + "end\n");
    EXPECT_EQ(unpacker.problem, "");
}

TEST_P(Packed, OfNothingIsEmpty) {
    const PackedFile file(format(), packed(format(), ""));
    Unpacker unpacker(file.descriptor, true, format(), "");
    char byte = 0;
    EXPECT_EQ(unpacker.readAt(0, &byte, 1), 0);
    EXPECT_EQ(unpacker.size(), 0U);
    EXPECT_EQ(unpacker.problem, "");
}

TEST_P(Packed, EveryCutIsToldAndWhatIsBeforeItIsRead) {
    const std::string text = lines(3000);
    const std::string whole = packed(format(), text);
    for (size_t length = Unpacker::LONGEST_MAGIC; length < whole.size(); ++length) {
        const PackedFile file(format(), whole.substr(0, length));
        Unpacker unpacker(file.descriptor, true, format(), "");
        const std::string read = readAll(unpacker, 700);
        EXPECT_EQ(read, text.substr(0, read.size()));
        EXPECT_EQ(unpacker.problem, "the compressed file is cut") << length;
        EXPECT_EQ(unpacker.size(), read.size());
    }
}

TEST_P(Packed, DamageIsTold) {
    const std::string text = lines(300000);
    std::string bytes = packed(format(), text);
    for (size_t i = 0; i < 64; ++i)
        bytes[bytes.size() / 2 + i] = '\xff';
    const PackedFile file(format(), bytes);
    Unpacker unpacker(file.descriptor, true, format(), "");
    const std::string read = readAll(unpacker, 10000);
    EXPECT_LT(read.size(), text.size());
    EXPECT_EQ(read.substr(0, 20000), text.substr(0, std::min<size_t>(read.size(), 20000)));
    EXPECT_NE(unpacker.problem, "");
    char byte = 0;
    EXPECT_EQ(unpacker.readAt(text.size() + 1, &byte, 1), -1);
}

TEST_P(Packed, APipeIsReadBehindWhatWasTakenFromIt) {
    const std::string text = lines(50000);
    const std::string bytes = packed(format(), text);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], bytes.data() + 3, bytes.size() - 3), static_cast<ssize_t>(bytes.size() - 3));
    close(ends[1]);
    {
        Unpacker unpacker(ends[0], false, format(), bytes.substr(0, 3));
        EXPECT_EQ(readAll(unpacker, 4096), text);
        EXPECT_EQ(unpacker.problem, "");
    }
    close(ends[0]);
}

TEST_P(Packed, GoingBackNeedsAPlaceForTheUnpackedFile) {
    const std::string text = lines(1000000);
    const PackedFile file(format(), packed(format(), text));
    setenv("TMPDIR", "/nowhere", 1);
    Unpacker unpacker(file.descriptor, true, format(), "");
    char block[10];
    EXPECT_EQ(unpacker.readAt(900000, block, sizeof block), 10);
    EXPECT_EQ(unpacker.readAt(100000, block, sizeof block), -1);
    EXPECT_EQ(unpacker.problem, "it cannot be unpacked into /nowhere: No such file or directory");
    unsetenv("TMPDIR");
}

// Zeros become holes of the temporary file, and memory stays as it is.
TEST_P(Packed, ManyZerosTakeNeitherMemoryNorDisk) {
    const std::string zeros(64UL * 1024 * 1024, '\0');
    const PackedFile file(format(), packed(format(), "begin\n" + zeros + "end\n"));
    Unpacker unpacker(file.descriptor, true, format(), "");
    const uint64_t size = unpacker.size();
    EXPECT_EQ(size, zeros.size() + 10);
    char block[4];
    ASSERT_EQ(unpacker.readAt(size - 4, block, sizeof block), 4);
    EXPECT_EQ(std::string(block, 4), "end\n");
    EXPECT_EQ(unpacker.problem, "");
}
