// Archive extraction policy of the content client: entry names, the tar reader, gzip members and
// limits, and the extractor that joins them. Archives are built in memory, byte by byte.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <map>

#include "archive_extractor.h"
#include "entry_name.h"
#include "gzip_decoder.h"
#include "tar_reader.h"

namespace {

// --- building archives ---------------------------------------------------------------------------

std::string Octal(std::uint64_t value, std::size_t width) {
    std::string digits;
    do {
        digits.insert(digits.begin(), static_cast<char>('0' + value % 8));
        value /= 8;
    } while (value);
    return std::string(width - 1 - digits.size(), '0') + digits;
}

constexpr const char* kUstar = "ustar\0" "00";
constexpr const char* kGnu = "ustar  \0";

struct Header {
    std::string name;
    char type;
    std::string content;
    std::string prefix;
    const char* magic;
    int checksumDelta;
};

Header H(std::string name, char type, std::string content, std::string prefix = "",
         const char* magic = kUstar, int checksumDelta = 0) {
    return {std::move(name), type, std::move(content), std::move(prefix), magic, checksumDelta};
}

std::string Block(const Header& h) {
    std::string block(512, '\0');
    block.replace(0, std::min<std::size_t>(h.name.size(), 100), h.name.substr(0, 100));
    block.replace(100, 7, "0000644");
    block.replace(108, 7, "0000000");
    block.replace(116, 7, "0000000");
    block.replace(124, 11, Octal(h.content.size(), 12));
    block.replace(136, 11, Octal(0, 12));
    block[156] = h.type;
    std::memcpy(&block[257], h.magic, 8);
    block.replace(345, h.prefix.size(), h.prefix);
    unsigned sum = 0;
    block.replace(148, 8, "        ");
    for (const char c : block) sum += static_cast<unsigned char>(c);
    block.replace(148, 6, Octal(sum + static_cast<unsigned>(h.checksumDelta), 7));
    block[154] = '\0';
    return block;
}

std::string Entry(const Header& h) {
    std::string data = Block(h) + h.content;
    data.append((512 - h.content.size() % 512) % 512, '\0');
    return data;
}

std::string File(const std::string& name, const std::string& content) {
    return Entry(H(name, '0', content));
}
std::string Dir(const std::string& name) {
    return Entry(H(name, '5', ""));
}
std::string Pax(const std::string& records) {
    return Entry(H("PaxHeader", 'x', records));
}
std::string PaxRecord(const std::string& key, const std::string& value) {
    const std::string body = " " + key + "=" + value + "\n";
    std::size_t length = body.size() + 1;
    while (std::to_string(length).size() + body.size() != length) ++length;
    return std::to_string(length) + body;
}
std::string End() {
    return std::string(1024, '\0') + std::string(8192, '\0');
}

std::string Gzip(const std::string& data, int level = 6) {
    z_stream stream{};
    EXPECT_EQ(deflateInit2(&stream, level, Z_DEFLATED, 16 + MAX_WBITS, 8, Z_DEFAULT_STRATEGY),
              Z_OK);
    std::string out(deflateBound(&stream, static_cast<uLong>(data.size())) + 64, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    stream.avail_in = static_cast<uInt>(data.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    return out;
}

// The byte at this distance from the end, inverted.
std::string Corrupt(std::string data, std::size_t fromEnd) {
    data[data.size() - fromEnd] = static_cast<char>(~data[data.size() - fromEnd]);
    return data;
}

const std::uint8_t* Bytes(const std::string& s) {
    return reinterpret_cast<const std::uint8_t*>(s.data());
}

// --- entry names ---------------------------------------------------------------------------------

struct NameCase {
    std::string name;
    std::vector<std::string> components;  // empty with refused = true: refused
    bool refused = false;
};

class KesEntryName : public ::testing::TestWithParam<NameCase> {};

TEST_P(KesEntryName, SplitsOrRefuses) {
    std::string why;
    const auto components = kesclient::SplitEntryName(GetParam().name, &why);
    if (GetParam().refused) {
        EXPECT_FALSE(components) << GetParam().name;
        EXPECT_FALSE(why.empty());
    } else {
        ASSERT_TRUE(components) << GetParam().name << ": " << why;
        EXPECT_EQ(*components, GetParam().components);
    }
}

NameCase Ok(std::string name, std::vector<std::string> components) {
    return {std::move(name), std::move(components)};
}
NameCase No(std::string name) {
    return {std::move(name), {}, true};
}

INSTANTIATE_TEST_SUITE_P(
    Names, KesEntryName,
    ::testing::Values(
        Ok("a/b.txt", {"a", "b.txt"}), Ok("./a//b/", {"a", "b"}), Ok("a\\b", {"a", "b"}),
        Ok("./", {}), Ok("dir/.hidden", {"dir", ".hidden"}), Ok("caf\xC3\xA9", {"caf\xC3\xA9"}),
        Ok("console.txt", {"console.txt"}), Ok("COM10", {"COM10"}), Ok("a..b", {"a..b"}), No(""),
        No("/etc/passwd"), No("\\Windows\\x"), No("../x"), No("a/../../x"), No("a\\..\\x"),
        No(".."), No("C:\\x"), No("c:x"), No("C:"), No("\\\\server\\share\\x"),
        No("//server/share"), No("\\\\?\\C:\\x"), No("\\\\.\\PhysicalDrive0"), No("//?/c:/x"),
        No("a/file:stream"), No("a/b*"), No("a/b?"), No("a<b"), No("a|b"), No("a\"b"),
        No("a\x01"
           "b"),
        No("trail."), No("trail "), No("dir./x"), No("NUL"), No("con"), No("aux.txt"), No("a/Com1"),
        No("lpt9.log"), No("nul .txt"), No("COM\xC2\xB9"), No("CONIN$"), No("x/CLOCK$"),
        No("\xC3\x28"), No("\xC0\xAF"), No("\xED\xA0\x80"), No(std::string(256, 'a')),
        No(std::string(1025, 'a')), No(std::string("a\0b", 3))));

TEST(KesEntryName, DepthIsBounded) {
    std::string deep;
    for (std::size_t i = 0; i < kesclient::kMaxEntryDepth; ++i) deep += "d/";
    EXPECT_TRUE(kesclient::SplitEntryName(deep, nullptr));
    EXPECT_FALSE(kesclient::SplitEntryName(deep + "x", nullptr));
}

TEST(KesFoldCase, MeetsWhatWindowsConsidersOneName) {
    EXPECT_EQ(kesclient::FoldCase("ReadMe.TXT"), "readme.txt");
    EXPECT_EQ(kesclient::FoldCase("\xC3\x89T\xC3\x89"), "\xC3\xA9t\xC3\xA9");  // ÉTÉ
    EXPECT_EQ(kesclient::FoldCase("\xD0\x90\xD0\x81"), "\xD0\xB0\xD1\x91");    // АЁ
    EXPECT_EQ(kesclient::FoldCase("\xCE\xA3"), "\xCF\x83");                    // Σ
    EXPECT_EQ(kesclient::FoldCase("\xC3\x97"), "\xC3\x97");                    // × has no case
}

// --- tar headers ---------------------------------------------------------------------------------

TEST(KesTarNumber, OctalAndBase256) {
    auto parse = [](const std::string& field) {
        return kesclient::ParseTarNumber(Bytes(field), field.size());
    };
    EXPECT_EQ(parse(std::string("00000000017\0", 12)), 15u);
    EXPECT_EQ(parse("  17 "), 15u);
    EXPECT_EQ(parse(std::string(12, '\0')), 0u);
    EXPECT_EQ(parse(std::string("\x80\0\0\0\0\0\0\x02\0\0\0\0", 12)), 8589934592u);  // 8 GiB
    EXPECT_FALSE(parse(std::string(12, '\xFF')));                                  // negative
    EXPECT_FALSE(parse(std::string("\x80") + std::string(11, '\xFF')));            // overflow
    EXPECT_FALSE(parse("0001 2"));
    EXPECT_FALSE(parse("0009"));
    EXPECT_FALSE(parse("77777777777777777777777"));
}

// --- the extractor, with the reader and gzip below it ------------------------------------------

class MemorySink : public kesclient::ExtractionSink {
public:
    bool MakeDirectory(const std::vector<std::string>& path, std::string*) override {
        directories.push_back(Join(path));
        return true;
    }
    bool BeginFile(const std::vector<std::string>& path, std::uint64_t, std::string* why) override {
        current = Join(path);
        if (current == failOn) {
            *why = "disk full";
            return false;
        }
        files[current];
        return true;
    }
    bool WriteFile(const std::uint8_t* data, std::size_t size, std::string*) override {
        files[current].append(reinterpret_cast<const char*>(data), size);
        return true;
    }
    bool EndFile(std::string*) override {
        ++closed;
        return true;
    }
    static std::string Join(const std::vector<std::string>& path) {
        std::string joined;
        for (const auto& c : path) joined += (joined.empty() ? "" : "/") + c;
        return joined;
    }

    std::vector<std::string> directories;
    std::map<std::string, std::string> files;
    std::string current;
    std::string failOn;
    int closed = 0;
};

struct Extraction {
    bool ok = false;
    std::string error;
    MemorySink sink;
};

Extraction Extract(const std::string& archive, std::size_t chunk = 1 << 20,
                   kesclient::ArchiveLimits limits = {}) {
    Extraction result;
    kesclient::ArchiveExtractor extractor(result.sink, limits, {"~staging"});
    bool ok = true;
    for (std::size_t at = 0; ok && at < archive.size(); at += chunk) {
        ok = extractor.Feed(Bytes(archive) + at, std::min(chunk, archive.size() - at));
    }
    result.ok = ok && extractor.Finish();
    result.error = extractor.error();
    return result;
}

const std::string kPackage = Dir("pkg/") + File("pkg/setup.exe", std::string(5000, 'x')) +
                             File("pkg/empty", "") + File("./pkg/sub/readme.txt", "hello") + End();

TEST(KesExtractor, PlainAndCompressedArchivesInAnyChunkSize) {
    for (const std::string& archive :
         {kPackage, Gzip(kPackage), Gzip(kPackage.substr(0, 700)) + Gzip(kPackage.substr(700))}) {
        for (const std::size_t chunk : {std::size_t{1}, std::size_t{511}, std::size_t{1} << 20}) {
            const Extraction result = Extract(archive, chunk);
            ASSERT_TRUE(result.ok) << result.error << " chunk " << chunk;
            EXPECT_EQ(result.sink.directories, std::vector<std::string>{"pkg"});
            ASSERT_EQ(result.sink.files.size(), 3u);
            EXPECT_EQ(result.sink.files.at("pkg/setup.exe"), std::string(5000, 'x'));
            EXPECT_EQ(result.sink.files.at("pkg/sub/readme.txt"), "hello");
            EXPECT_EQ(result.sink.closed, 3);
        }
    }
}

TEST(KesExtractor, LongNamesFromGnuAndPaxHeaders) {
    const std::string longName = std::string(150, 'n') + "/" + std::string(120, 'm') + ".bin";
    const std::string archive =
        Entry(H("././@LongLink", 'L', longName + '\0', "", kGnu)) +
        Entry(H("short", '0', "gnu", "", kGnu)) +
        Pax(PaxRecord("path", "pax/" + longName) + PaxRecord("mtime", "1.5")) +
        File("ignored", "pax") + Entry(H("file", '0', "prefixed", "some/prefix")) + End();
    const Extraction result = Extract(archive, 100);
    ASSERT_TRUE(result.ok) << result.error;
    EXPECT_EQ(result.sink.files.at(longName), "gnu");
    EXPECT_EQ(result.sink.files.at("pax/" + longName), "pax");
    EXPECT_EQ(result.sink.files.at("some/prefix/file"), "prefixed");
}

TEST(KesExtractor, PaxSizeOverridesTheHeader) {
    // A pax size tells the real length when the header's field cannot; here it is merely smaller.
    const std::string archive = Pax(PaxRecord("size", "3")) + Block(H("f", '0', "")) +
                                std::string("abc") + std::string(509, '\0') + End();
    const Extraction result = Extract(archive);
    ASSERT_TRUE(result.ok) << result.error;
    EXPECT_EQ(result.sink.files.at("f"), "abc");
}

struct RefusedCase {
    std::string label;
    std::string archive;
    std::string reason;  // part of the error
};

class KesExtractorRefuses : public ::testing::TestWithParam<RefusedCase> {};

TEST_P(KesExtractorRefuses, TheWholeArchive) {
    const Extraction result = Extract(GetParam().archive, 333);
    EXPECT_FALSE(result.ok);
    EXPECT_NE(result.error.find(GetParam().reason), std::string::npos) << result.error;
}

std::string WithFile(const std::string& entries) {
    return File("ok.txt", "fine") + entries + End();
}

INSTANTIATE_TEST_SUITE_P(
    Archives, KesExtractorRefuses,
    ::testing::Values(
        RefusedCase{"dotdot", WithFile(File("../evil.txt", "x")), "\"..\""},
        RefusedCase{"absolute", WithFile(File("/tmp/evil", "x")), "absolute"},
        RefusedCase{"symlink", WithFile(Entry(H("link", '2', ""))), "symbolic link"},
        RefusedCase{"hardlink", WithFile(Entry(H("link", '1', ""))), "hard link"},
        RefusedCase{"longlink",
                    WithFile(Entry(H("././@LongLink", 'K', "target", "", kGnu)) +
                             Entry(H("l", '2', ""))),
                    "link"},
        RefusedCase{"chardev", WithFile(Entry(H("dev", '3', ""))), "character device"},
        RefusedCase{"blockdev", WithFile(Entry(H("dev", '4', ""))), "block device"},
        RefusedCase{"fifo", WithFile(Entry(H("pipe", '6', ""))), "FIFO"},
        RefusedCase{"volume", WithFile(Entry(H("vol", 'V', ""))), "unsupported"},
        RefusedCase{"sparse", WithFile(Pax(PaxRecord("GNU.sparse.map", "0,1")) + File("s", "x")),
                    "sparse"},
        RefusedCase{"casecollision", WithFile(File("Readme.txt", "a") + File("README.TXT", "b")),
                    "twice"},
        RefusedCase{"fileoverdir", WithFile(File("d/f", "x") + File("D", "x")), "twice"},
        RefusedCase{"dirthenfile", WithFile(Dir("d/") + File("d", "x")), "twice"},
        RefusedCase{"belowfile", WithFile(File("f", "x") + File("F/g", "x")), "below a file"},
        RefusedCase{"reserved", WithFile(File("~STAGING/x", "x")), "reserved"},
        RefusedCase{"nofile", WithFile(File("./", "x")), "without a name"},
        RefusedCase{"emptyname", WithFile(File("", "x")), "without a name"},
        RefusedCase{"checksum", WithFile(Entry(H("bad", '0', "x", "", kUstar, 1))), "checksum"},
        RefusedCase{"magic", WithFile(Entry(H("old", '0', "x", "", "\0\0\0\0\0\0\0\0"))), "ustar"},
        RefusedCase{"noend", File("ok.txt", "fine"), "end-of-archive"},
        RefusedCase{"oneblock", File("ok.txt", "fine") + std::string(512, '\0'), "end-of-archive"},
        RefusedCase{"truncated", File("ok.txt", std::string(2000, 'x')).substr(0, 1500),
                    "end-of-archive"},
        RefusedCase{"lonezero", File("a", "x") + std::string(512, '\0') + File("b", "y") + End(),
                    "lone zero"},
        RefusedCase{"paxalone", File("a", "x") + Pax(PaxRecord("path", "b")) + End(),
                    "without an entry"},
        RefusedCase{"paxbad", WithFile(Pax("5 path=x\n") + File("f", "x")), "malformed"},
        RefusedCase{"paxhuge", WithFile(Pax(std::string(70000, 'x'))), "too large"},
        RefusedCase{"empty", "", "empty"},
        RefusedCase{"gzipgarbage", Gzip(kPackage) + "trailing", "after the end"},
        RefusedCase{"gziptruncated", Gzip(kPackage).substr(0, 60), "truncated"},
        RefusedCase{"gzipcrc", Corrupt(Gzip(kPackage), 8), "corrupt"},
        RefusedCase{"gzipdata", Corrupt(Gzip(kPackage), 40), "corrupt"}),
    [](const ::testing::TestParamInfo<RefusedCase>& info) { return info.param.label; });

TEST(KesExtractor, LimitsOnEntriesSizeAndRatio) {
    std::string many;
    for (int i = 0; i < 5; ++i) many += File("f" + std::to_string(i), "x");
    kesclient::ArchiveLimits limits;
    limits.maxEntries = 4;
    EXPECT_NE(Extract(many + End(), 4096, limits).error.find("too many entries"),
              std::string::npos);
    limits.maxEntries = 5;
    EXPECT_TRUE(Extract(many + End(), 4096, limits).ok);

    limits = {};
    limits.maxTotalBytes = 4999;
    EXPECT_NE(Extract(kPackage, 4096, limits).error.find("larger than the limit"),
              std::string::npos);
    limits.maxTotalBytes = 5005;
    EXPECT_TRUE(Extract(kPackage, 4096, limits).ok);

    // A gigabyte of zeros compresses a thousandfold; 4 MiB of them is enough to show the bound.
    const std::string bomb = Gzip(File("zeros", std::string(4 << 20, '\0')) + End(), 9);
    limits = {};
    limits.ratioAllowance = 1 << 20;
    limits.maxRatio = 100;
    EXPECT_NE(Extract(bomb, 4096, limits).error.find("ratio"), std::string::npos);
    limits.maxRatio = 2000;
    EXPECT_TRUE(Extract(bomb, 4096, limits).ok);
}

TEST(KesExtractor, SinkFailureRefusesTheArchive) {
    Extraction result;
    result.sink.failOn = "pkg/setup.exe";
    kesclient::ArchiveExtractor extractor(result.sink, {});
    EXPECT_FALSE(extractor.Feed(Bytes(kPackage), kPackage.size()));
    EXPECT_FALSE(extractor.Finish());
    EXPECT_NE(extractor.error().find("disk full"), std::string::npos);
}

TEST(KesGzip, MembersInAnyChunkingAndNothingAfterThem) {
    const std::string text = "first member, " + std::string(100000, 'y');
    const std::string stream = Gzip(text) + Gzip("second");
    for (const std::size_t chunk : {std::size_t{1}, std::size_t{7}, stream.size()}) {
        kesclient::GzipDecoder decoder({1 << 20, 1000, 1 << 20});
        std::string out;
        for (std::size_t at = 0; at < stream.size(); at += chunk) {
            ASSERT_TRUE(decoder.Feed(Bytes(stream) + at, std::min(chunk, stream.size() - at),
                                     [&out](const std::uint8_t* d, std::size_t n) {
                                         out.append(reinterpret_cast<const char*>(d), n);
                                         return true;
                                     }));
        }
        EXPECT_TRUE(decoder.Finish());
        EXPECT_EQ(out, text + "second");
    }
    // A half-seen second member is a truncated stream, not garbage.
    kesclient::GzipDecoder decoder({1 << 20, 1000, 1 << 20});
    const std::string halfMagic = Gzip("a") + "\x1F";
    EXPECT_TRUE(decoder.Feed(Bytes(halfMagic), halfMagic.size(),
                             [](const std::uint8_t*, std::size_t) { return true; }));
    EXPECT_FALSE(decoder.Finish());
}

TEST(KesGzip, OutputLimitHoldsWhateverTheRatio) {
    kesclient::GzipDecoder decoder({1000, 1000000, 1 << 30});
    const std::string stream = Gzip(std::string(5000, 'z'));
    EXPECT_FALSE(decoder.Feed(Bytes(stream), stream.size(),
                              [](const std::uint8_t*, std::size_t) { return true; }));
    EXPECT_NE(decoder.error().find("beyond limit"), std::string::npos);
}

}  // namespace
