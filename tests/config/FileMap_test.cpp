// Tests of FileMap on real files in a private temporary directory.
#include "config/FileMap.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <clocale>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace {

std::string gTempDir;

// Runs work on its own thread and waits at most `seconds` for it. A hang
// (a lock taken twice, a lost unlock) ends the test program instead of
// blocking it for ever.
void runBounded(const std::function<void()>& work, int seconds = 30)
{
    struct State {
        std::mutex m;
        std::condition_variable cv;
        bool done = false;
    };
    auto state = std::make_shared<State>();
    std::thread([state, work] {
        work();
        std::lock_guard<std::mutex> g(state->m);
        state->done = true;
        state->cv.notify_all();
    }).detach();
    std::unique_lock<std::mutex> lk(state->m);
    if (!state->cv.wait_for(lk, std::chrono::seconds(seconds),
                            [&] { return state->done; })) {
        std::fprintf(stderr, "FileMap test: work did not finish, lock hang\n");
        std::error_code ec;
        fs::remove_all(gTempDir, ec);
        std::_Exit(1);
    }
}

// save() under the bounded wait: a save that took its own lock twice
// would otherwise hang the program.
int saveBounded(FileMap& fm)
{
    int result = -1;
    runBounded([&] { result = fm.save(); });
    return result;
}

class FileMapTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const char* base = std::getenv("TMPDIR");
        std::string tmpl = std::string(base && *base ? base : "/tmp")
                           + "/filemap_test.XXXXXX";
        std::vector<char> buf(tmpl.begin(), tmpl.end());
        buf.push_back('\0');
        ASSERT_NE(mkdtemp(buf.data()), nullptr);
        dir = buf.data();
        gTempDir = dir;
    }

    void TearDown() override
    {
        std::error_code ec;
        fs::remove_all(dir, ec);
        gTempDir.clear();
    }

    std::string path(const std::string& name) const { return dir + "/" + name; }

    std::string write(const std::string& name, const std::string& bytes) const
    {
        std::string p = path(name);
        std::ofstream out(p, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        return p;
    }

    std::string read(const std::string& name) const
    {
        std::ifstream in(path(name), std::ios::binary);
        std::ostringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

    size_t fileCount() const
    {
        size_t n = 0;
        for (const auto& e : fs::directory_iterator(dir)) {
            (void)e;
            ++n;
        }
        return n;
    }

    std::string dir;
};

TEST(FileMapTrimming, BlanksQuotesAndReport)
{
    struct Case {
        std::string in;
        std::string out;
        int quoted;
    };
    const Case cases[] = {
        {"", "", 0},
        {" \t value \t\r", "value", 0},
        {"  \"/opt/x/ \"  \r", "/opt/x/ ", 1},
        {"\"unclosed", "unclosed", 1},
        {"\"", "", 1},
        {"\"\"", "", 1},
        {"x\"", "x\"", 0},
        {"\"a\"b", "a\"b", 1},
        {" \t\r ", "", 0},
        {"\r", "", 0},
        {"a \r b", "a \r b", 0},
        {"\t\"in\tside\" ", "in\tside", 1},
    };
    for (const Case& c : cases) {
        std::string s = c.in;
        EXPECT_EQ(FileMap::trimming(&s), c.quoted) << "input [" << c.in << "]";
        EXPECT_EQ(s, c.out) << "input [" << c.in << "]";
    }
}

TEST_F(FileMapTest, LoadParsesLines)
{
    std::string p = write("Kestrava.ini",
                          "# comment = hidden\n"
                          "  # notcomment = 1\n"
                          "a=b=c\n"
                          "no equals sign here\n"
                          "\n"
                          "  Path = \"/opt/x/ \"\n"
                          "quoted= \"unclosed\n"
                          "empty=\n"
                          " spaced\t =\t value  with inner  \r\n"
                          "crlf=v\r\n"
                          "dup=first\n"
                          "dup=second\n"
                          "=nokey\n"
                          "CaSe=upper\n"
                          "bin=\x01\xff\n"
                          "tail=no line feed");
    FileMap fm(p);
    EXPECT_TRUE(fm.isLoaded());
    EXPECT_EQ(fm.fileName(), p);
    EXPECT_EQ(fm.getConf("# notcomment"), "1");
    EXPECT_EQ(fm.getConf("a"), "b=c");
    EXPECT_EQ(fm.getConf("Path"), "/opt/x/ ");
    EXPECT_EQ(fm.getConf("quoted"), "unclosed");
    EXPECT_EQ(fm.getConf("empty"), "");
    EXPECT_EQ(fm.getConf("spaced"), "value  with inner");
    EXPECT_EQ(fm.getConf("crlf"), "v");
    EXPECT_EQ(fm.getConf("dup"), "second");
    EXPECT_EQ(fm.getConf(""), "nokey");
    EXPECT_EQ(fm.getConf("CaSe"), "upper");
    EXPECT_EQ(fm.getConf("case"), "");
    EXPECT_EQ(fm.getConf("bin"), "\x01\xff");
    EXPECT_EQ(fm.getConf("tail"), "no line feed");
    EXPECT_EQ(fm.getConf("# comment"), "");

    // Reloading discards memory and rereads the file.
    fm.setConf("extra", "1");
    write("Kestrava.ini", "a=2\n");
    EXPECT_EQ(fm.load(), 1);
    EXPECT_EQ(fm.getConf("a"), "2");
    EXPECT_EQ(fm.getConf("extra"), "");
    EXPECT_EQ(fm.getConf("Path"), "");

    // A missing file clears memory and reports not loaded.
    fs::remove(p);
    EXPECT_EQ(fm.load(), 0);
    EXPECT_FALSE(fm.isLoaded());
    EXPECT_EQ(fm.getConf("a"), "");
    write("Kestrava.ini", "a=3\n");
    EXPECT_EQ(fm.load(), 1);
    EXPECT_TRUE(fm.isLoaded());
}

TEST_F(FileMapTest, SetConfRules)
{
    FileMap fm;
    EXPECT_FALSE(fm.isLoaded());
    EXPECT_EQ(fm.fileName(), "");
    EXPECT_EQ(fm.load(), 0);

    fm.setConf("k", "old");
    fm.setConf("k", "\n");
    EXPECT_EQ(fm.getConf("k"), "old");
    fm.setConf("\n", "v");
    EXPECT_EQ(fm.getConf("\n"), "");
    fm.setConf("k", "\r\n");
    EXPECT_EQ(fm.getConf("k"), "\r\n");
    fm.setConf("k", "");
    EXPECT_EQ(fm.getConf("k"), "");

    fm.setConfNum("n", -42);
    EXPECT_EQ(fm.getConf("n"), "-42");
    fm.setConfNum("n", 0);
    EXPECT_EQ(fm.getConf("n"), "0");
    fm.setConfNum("n", 2147483647);
    EXPECT_EQ(fm.getConf("n"), "2147483647");
    fm.setConfNum("n", -2147483647 - 1);
    EXPECT_EQ(fm.getConf("n"), "-2147483648");
}

TEST_F(FileMapTest, SaveRewritesOnlyChangedValuesInPlace)
{
    write("Kestrava.ini",
          "# Kestrava settings=keep\n"
          "  # odd = 1\n"
          "a=b=c\n"
          "Path  =  \"/opt/x/ \"  \n"
          "quoted= \"unclosed\n"
          "Mode=1\n"
          "Same = keep   \n"
          "Quoted = \"same\"\n"
          "dup=first\n"
          "dup=second\n"
          "noequals\n"
          "emptied = x\n"
          "last=x");
    FileMap fm(path("Kestrava.ini"));
    ASSERT_TRUE(fm.isLoaded());

    fm.setConf("# odd", "2");
    fm.setConf("a", "z");
    fm.setConf("Path", "/srv");
    fm.setConf("quoted", "new value");
    fm.setConf("Same", "keep");
    fm.setConf("Quoted", "same");
    fm.setConf("dup", "third");
    fm.setConf("emptied", "");
    fm.setConf("newkey", "v");
    EXPECT_EQ(fm.getConf("absent"), "");

    EXPECT_EQ(saveBounded(fm), 1);
    EXPECT_EQ(read("Kestrava.ini"),
              "# Kestrava settings=keep\n"
              "  # odd = 2\n"
              "a= z\n"
              "Path  = \"/srv\"\n"
              "quoted= \"new value\"\n"
              "Mode=1\n"
              "Same = keep   \n"
              "Quoted = \"same\"\n"
              "dup= third\n"
              "dup= third\n"
              "noequals\n"
              "emptied = \n"
              "last=x\n");

    // The saved file reads back to the same values; a second save with
    // nothing changed leaves the bytes as they are.
    FileMap again(path("Kestrava.ini"));
    EXPECT_EQ(again.getConf("# odd"), "2");
    EXPECT_EQ(again.getConf("Path"), "/srv");
    EXPECT_EQ(again.getConf("quoted"), "new value");
    EXPECT_EQ(again.getConf("emptied"), "");
    std::string before = read("Kestrava.ini");
    EXPECT_EQ(saveBounded(again), 1);
    EXPECT_EQ(read("Kestrava.ini"), before);
}

TEST_F(FileMapTest, SaveOnMissingFileCreatesNothing)
{
    std::string p = write("alert.rc", "204=text\n");
    FileMap fm(p);
    fm.setConf("204", "changed");
    fs::remove(p);
    EXPECT_EQ(saveBounded(fm), 0);
    EXPECT_FALSE(fs::exists(p));
    EXPECT_EQ(fileCount(), 0u);
    // The lock was released on the early return.
    runBounded([&] { fm.setConf("204", "again"); });
    EXPECT_EQ(fm.getConf("204"), "again");

    FileMap never(path("Membercnt.cfg"));
    EXPECT_FALSE(never.isLoaded());
    never.setConf("SetLater", "1");
    EXPECT_EQ(saveBounded(never), 0);
    EXPECT_EQ(fileCount(), 0u);
    runBounded([&] { never.setConf("SetLater", "2"); });

    FileMap unnamed;
    EXPECT_EQ(saveBounded(unnamed), 0);
    runBounded([&] { unnamed.setConf("k", "v"); });
    EXPECT_EQ(fileCount(), 0u);
}

TEST_F(FileMapTest, SaveCollapsesEmptyLines)
{
    struct Case {
        std::string in;
        std::string out;
    };
    const Case cases[] = {
        {"a=1\n\n\n\nb=2\n", "a=1\n\nb=2\n"},
        // A comment between two empty lines does not break the run.
        {"a=1\n\n#c\n\nb=2\n", "a=1\n\n#c\nb=2\n"},
        {"a=1\n\n#c\n#d\n\n\n#e\nb=2\n", "a=1\n\n#c\n#d\n#e\nb=2\n"},
        // A line of blanks is not empty and ends the run.
        {"a=1\n\n \n\n", "a=1\n\n \n\n"},
        {"\n\nx=1\n\n", "\nx=1\n\n"},
        {"text\n\n\nmore\n", "text\n\nmore\n"},
        {"", ""},
    };
    for (const Case& c : cases) {
        write("f.ini", c.in);
        FileMap fm(path("f.ini"));
        EXPECT_EQ(saveBounded(fm), 1);
        EXPECT_EQ(read("f.ini"), c.out) << "from [" << c.in << "]";
    }
}

TEST_F(FileMapTest, SaveKeepsCarriageReturnsOnlyOnUnchangedLines)
{
    write("f.ini",
          "# head\r\n"
          "a=1\r\n"
          "b=2\r\n"
          "\r\n"
          "q=\"x\"\r\n"
          "p=\"x y\"\r\n");
    FileMap fm(path("f.ini"));
    EXPECT_EQ(fm.getConf("b"), "2");
    EXPECT_EQ(fm.getConf("q"), "x");
    fm.setConf("b", "3");
    fm.setConf("q", "y");
    EXPECT_EQ(saveBounded(fm), 1);
    EXPECT_EQ(read("f.ini"),
              "# head\r\n"
              "a=1\r\n"
              "b= 3\n"
              "\r\n"
              "q= \"y\"\n"
              "p=\"x y\"\r\n");
}

TEST(FileMapCipher, KnownBytesAndRoundTrip)
{
    char known[] = "Kestrava";
    FileMap::D_cm_EncryptString(known, 8);
    const unsigned char expected[] = {0xd4, 0x33, 0x2e, 0x2e, 0x21, 0x33, 0x27, 0x3d};
    EXPECT_EQ(std::memcmp(known, expected, 8), 0);
    FileMap::D_cm_DecryptString(known, 8);
    EXPECT_STREQ(known, "Kestrava");

    // Bytes that encipher to zero at their position.
    char zeros[5] = {'\x97', '\x98', '\x99', '\x9a', '\x93'};
    FileMap::D_cm_EncryptString(zeros, 5);
    for (char c : zeros) {
        EXPECT_EQ(c, '\0');
    }

    // Nothing happens for a length of zero or less.
    char keep[] = "abc";
    FileMap::D_cm_EncryptString(keep, 0);
    FileMap::D_cm_EncryptString(keep, -3);
    FileMap::D_cm_DecryptString(keep, -1);
    EXPECT_STREQ(keep, "abc");

    // Every byte value at every position of a 49-character text.
    for (int shift = 0; shift < 256; ++shift) {
        char plain[50];
        for (int i = 0; i < 49; ++i) {
            plain[i] = static_cast<char>((shift + i * 37) & 0xff);
        }
        plain[49] = '\0';
        char buf[50];
        std::memcpy(buf, plain, sizeof(buf));
        FileMap::D_cm_EncryptString(buf, 50);
        FileMap::D_cm_DecryptString(buf, 50);
        ASSERT_EQ(std::memcmp(buf, plain, sizeof(buf)), 0) << "shift " << shift;
    }
}

TEST(FileMapCipher, StoredValues)
{
    FileMap fm;
    const std::string text49 = "AccessCode-0123456789-abcdefghijklmnopqrstuvwxyz!";
    ASSERT_EQ(text49.size(), 49u);
    fm.setConfEnc("AccessCode1", text49);
    std::string stored = fm.getConf("AccessCode1");
    EXPECT_EQ(stored.size(), 50u);
    EXPECT_EQ(stored.find("AccessCode"), std::string::npos);
    EXPECT_EQ(fm.getConfDec("AccessCode1"), text49);

    // High bytes, and texts longer than 49 characters cut at 49.
    std::string high;
    for (int i = 0; i < 49; ++i) {
        high += static_cast<char>(0xa0 + i);
    }
    fm.setConfEnc("k", high);
    EXPECT_EQ(fm.getConfDec("k"), high);
    fm.setConfEnc("k", text49 + "tail");
    EXPECT_EQ(fm.getConfDec("k"), text49);
    fm.setConfEnc("k", "");
    EXPECT_EQ(fm.getConf("k").size(), 50u);
    EXPECT_EQ(fm.getConfDec("k"), "");

    // A byte that enciphers to zero ends the stored string there; what
    // follows it is lost, the text up to and including it comes back.
    std::string cut = text49;
    cut[10] = static_cast<char>(0x3B + (10 ^ 0x5C));
    fm.setConfEnc("k", cut);
    EXPECT_EQ(fm.getConf("k").size(), 10u);
    EXPECT_EQ(fm.getConfDec("k").substr(0, 11), cut.substr(0, 11));
    cut[0] = '\x97';
    fm.setConfEnc("k", cut);
    EXPECT_EQ(fm.getConf("k"), "");
    EXPECT_EQ(fm.getConfDec("k").substr(0, 1), "\x97");

    // A short stored value is read as padded with zeros.
    char two[] = "ab";
    FileMap::D_cm_EncryptString(two, 2);
    fm.setConf("short", two);
    EXPECT_EQ(fm.getConfDec("short").substr(0, 2), "ab");
    EXPECT_LE(fm.getConfDec("short").size(), 50u);
}

TEST_F(FileMapTest, LanguageConstructors)
{
    write("alert.rc", "204=plain\n");
    write("alert.rc.ja", "204=japanese\n");

    FileMap withLang(path("alert.rc"), std::string("ja"));
    EXPECT_TRUE(withLang.isLoaded());
    EXPECT_EQ(withLang.fileName(), path("alert.rc.ja"));
    EXPECT_EQ(withLang.getConf("204"), "japanese");

    FileMap literal(path("alert.rc"), "ja");
    EXPECT_EQ(literal.fileName(), path("alert.rc.ja"));

    FileMap fallback(path("alert.rc"), std::string("de"));
    EXPECT_TRUE(fallback.isLoaded());
    EXPECT_EQ(fallback.fileName(), path("alert.rc"));
    EXPECT_EQ(fallback.getConf("204"), "plain");

    FileMap neither(path("missing.rc"), std::string("de"));
    EXPECT_FALSE(neither.isLoaded());
    EXPECT_EQ(neither.fileName(), path("missing.rc"));

    const char* oldLang = std::getenv("LANG");
    std::string saved = oldLang ? oldLang : "";

    write("alert.rc.C.UTF-8", "204=utf8\n");
    setenv("LANG", "C.UTF-8", 1);
    {
        FileMap localised(path("alert.rc"), true);
        EXPECT_EQ(localised.fileName(), path("alert.rc.C.UTF-8"));
        EXPECT_EQ(localised.getConf("204"), "utf8");
        const char* now = std::setlocale(LC_ALL, nullptr);
        ASSERT_NE(now, nullptr);
        EXPECT_STREQ(now, "C.UTF-8");
        std::setlocale(LC_ALL, "C");

        FileMap notLocalised(path("alert.rc"), false);
        EXPECT_EQ(notLocalised.fileName(), path("alert.rc"));
        EXPECT_EQ(notLocalised.getConf("204"), "plain");
        EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), "C");
    }
    {
        // No fallback for the localised file name.
        setenv("LANG", "xx_XX", 1);
        FileMap localised(path("alert.rc"), true);
        EXPECT_EQ(localised.fileName(), path("alert.rc.xx_XX"));
        EXPECT_FALSE(localised.isLoaded());
    }
    for (int unset = 0; unset < 2; ++unset) {
        if (unset) {
            unsetenv("LANG");
        } else {
            setenv("LANG", "", 1);
        }
        FileMap localised(path("alert.rc"), true);
        EXPECT_EQ(localised.fileName(), path("alert.rc"));
        EXPECT_TRUE(localised.isLoaded());
        EXPECT_EQ(localised.getConf("204"), "plain");
        EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), "C");
    }

    if (oldLang) {
        setenv("LANG", saved.c_str(), 1);
    } else {
        unsetenv("LANG");
    }
    std::setlocale(LC_ALL, "C");
}

TEST_F(FileMapTest, LockIsHeldBySetters)
{
    FileMap fm;
    fm.FMAPLock();
    std::atomic<bool> done{false};
    std::thread writer([&] {
        fm.setConf("k", "v");
        done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(done.load());
    fm.FMAPUnLock();
    runBounded([&] { writer.join(); });
    EXPECT_TRUE(done.load());
    EXPECT_EQ(fm.getConf("k"), "v");
}

TEST_F(FileMapTest, ConcurrentSettersDuringSave)
{
    const int kKeys = 8;
    const int kWriters = 4;
    const int kRounds = 300;
    std::string original = "# shared settings\n\n";
    for (int k = 0; k < kKeys; ++k) {
        original += "k" + std::to_string(k) + "=0\n";
        if (k == 3) {
            original += "\n# second half\n";
        }
    }
    write("Kestrava.ini", original);
    FileMap fm(path("Kestrava.ini"));
    ASSERT_TRUE(fm.isLoaded());

    // Parses a saved file: comments and blank lines in place, every key
    // line "kN=..." in order; returns the values or an empty vector.
    auto parse = [&](const std::string& text) {
        std::vector<long> values;
        std::istringstream in(text);
        std::string line;
        std::vector<std::string> lines;
        while (std::getline(in, line)) {
            lines.push_back(line);
        }
        if (lines.size() != static_cast<size_t>(kKeys + 4) || lines[0] != "# shared settings"
            || !lines[1].empty() || !lines[6].empty() || lines[7] != "# second half") {
            return std::vector<long>();
        }
        for (size_t i = 0; i < lines.size(); ++i) {
            if (i == 0 || i == 1 || i == 6 || i == 7) {
                continue;
            }
            std::string prefix = "k" + std::to_string(values.size()) + "=";
            if (lines[i].compare(0, prefix.size(), prefix) != 0) {
                return std::vector<long>();
            }
            values.push_back(std::strtol(lines[i].c_str() + prefix.size(), nullptr, 10));
        }
        return values;
    };

    std::atomic<bool> corrupt{false};
    std::atomic<bool> backwards{false};
    runBounded([&] {
        std::vector<std::thread> writers;
        for (int w = 0; w < kWriters; ++w) {
            writers.emplace_back([&, w] {
                for (int r = 1; r <= kRounds; ++r) {
                    fm.setConfNum("k" + std::to_string(w), r);
                    fm.setConfNum("k" + std::to_string(w + kWriters), r);
                }
            });
        }
        std::thread saver([&] {
            std::vector<long> last(kKeys, 0);
            for (int s = 0; s < 40; ++s) {
                if (fm.save() != 1) {
                    corrupt = true;
                }
                std::vector<long> now = parse(read("Kestrava.ini"));
                if (now.size() != static_cast<size_t>(kKeys)) {
                    corrupt = true;
                    return;
                }
                for (int k = 0; k < kKeys; ++k) {
                    if (now[k] < last[k]) {
                        backwards = true;
                    }
                }
                last = now;
            }
        });
        for (auto& t : writers) {
            t.join();
        }
        saver.join();
    });
    EXPECT_FALSE(corrupt.load());
    EXPECT_FALSE(backwards.load());

    EXPECT_EQ(saveBounded(fm), 1);
    std::string expected = "# shared settings\n\n";
    for (int k = 0; k < kKeys; ++k) {
        expected += "k" + std::to_string(k) + "= " + std::to_string(kRounds) + "\n";
        if (k == 3) {
            expected += "\n# second half\n";
        }
    }
    EXPECT_EQ(read("Kestrava.ini"), expected);
}

} // namespace
