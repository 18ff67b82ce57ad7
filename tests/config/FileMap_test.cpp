// Tests of FileMap on real files in a private temporary directory.
#include "config/FileMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>
#include <sys/mount.h>
#include <sys/stat.h>

#include "tests/fakes/ChildProcess.h"
#include "tests/fakes/FailingFileSystem.h"
#include "tests/fakes/TempDir.h"

namespace fs = std::filesystem;

namespace {

// Runs work on its own thread and waits at most 30 s: a lock taken twice or
// never released ends the program instead of hanging it.
void runBounded(const std::function<void()>& work)
{
    auto done = std::make_shared<std::atomic<bool>>(false);
    std::thread([done, work] { work(); *done = true; }).detach();
    if (!waitFor([&] { return done->load(); }, 30, 2)) {
        std::fprintf(stderr, "FileMap test: work did not finish, lock hang\n");
        std::_Exit(1);
    }
}

int saveBounded(FileMap& fm)
{
    int result = -1;
    runBounded([&] { result = fm.save(); });
    return result;
}

class FileMapTest : public ::testing::Test {
protected:
    TempDir dir{"filemap_test."};
};

TEST(FileMapTrimming, BlanksQuotesAndReport)
{
    const struct { const char* in; const char* out; int quoted; } cases[] = {
        {"", "", 0}, {" \t value \t\r", "value", 0}, {"  \"/opt/x/ \"  \r", "/opt/x/ ", 1},
        {"\"unclosed", "unclosed", 1}, {"\"", "", 1}, {"x\"", "x\"", 0}, {"\"a\"b", "a\"b", 1},
        {"a \r b", "a \r b", 0}, {"\t\"in\tside\" ", "in\tside", 1},
    };
    for (const auto& c : cases) {
        std::string s = c.in;
        EXPECT_EQ(FileMap::trimming(&s), c.quoted) << "[" << c.in << "]";
        EXPECT_EQ(s, c.out) << "[" << c.in << "]";
    }
}

TEST_F(FileMapTest, LoadParsesLinesAndReloads)
{
    std::string p = dir.file("Kestrava.ini");
    dir.write("Kestrava.ini",
              "# comment = hidden\n  # notcomment = 1\na=b=c\nno equals sign here\n\n"
              "  Path = \"/opt/x/ \"\nquoted= \"unclosed\nempty=\n"
              " spaced\t =\t value  with inner  \r\ncrlf=v\r\ndup=first\ndup=second\n"
              "=nokey\nCaSe=upper\nbin=\x01\xff\ntail=no line feed");
    FileMap fm(p);
    EXPECT_TRUE(fm.isLoaded());
    const std::pair<const char*, const char*> expected[] = {
        {"# notcomment", "1"}, {"a", "b=c"}, {"Path", "/opt/x/ "}, {"quoted", "unclosed"},
        {"empty", ""}, {"spaced", "value  with inner"}, {"crlf", "v"}, {"dup", "second"},
        {"", "nokey"}, {"CaSe", "upper"}, {"case", ""}, {"bin", "\x01\xff"},
        {"tail", "no line feed"}, {"# comment", ""},
    };
    for (const auto& kv : expected)
        EXPECT_EQ(fm.getConf(kv.first), kv.second) << kv.first;

    // Reloading discards memory; a missing file clears it and reports so.
    fm.setConf("extra", "1");
    dir.write("Kestrava.ini", "a=2\n");
    EXPECT_EQ(fm.load(), 1);
    EXPECT_EQ(fm.getConf("a"), "2");
    EXPECT_EQ(fm.getConf("extra"), "");
    fs::remove(p);
    EXPECT_EQ(fm.load(), 0);
    EXPECT_FALSE(fm.isLoaded());
    EXPECT_EQ(fm.getConf("a"), "");
}

TEST_F(FileMapTest, SaveRewritesOnlyChangedValuesInPlace)
{
    dir.write("Kestrava.ini",
              "# Kestrava settings=keep\n  # odd = 1\na=b=c\nPath  =  \"/opt/x/ \"  \n"
              "quoted= \"unclosed\nMode=1\nSame = keep   \nQuoted = \"same\"\ndup=first\ndup=second\n"
              "noequals\nemptied = x\nlast=x");
    FileMap fm(dir.file("Kestrava.ini"));
    const std::pair<const char*, const char*> changes[] = {
        {"# odd", "2"}, {"a", "z"}, {"Path", "/srv"}, {"quoted", "new value"}, {"Same", "keep"},
        {"Quoted", "same"}, {"dup", "third"}, {"emptied", ""}, {"newkey", "v"},
    };
    for (const auto& kv : changes)
        fm.setConf(kv.first, kv.second);
    EXPECT_EQ(fm.getConf("absent"), ""); // creates an entry, never written

    EXPECT_EQ(saveBounded(fm), 1);
    const std::string saved = "# Kestrava settings=keep\n  # odd = 2\na= z\nPath  = \"/srv\"\n"
                              "quoted= \"new value\"\nMode=1\nSame = keep   \nQuoted = \"same\"\n"
                              "dup= third\ndup= third\nnoequals\nemptied = \nlast=x\n";
    EXPECT_EQ(dir.read("Kestrava.ini"), saved);

    // Saving the saved file unchanged leaves its bytes alone.
    FileMap again(dir.file("Kestrava.ini"));
    EXPECT_EQ(saveBounded(again), 1);
    EXPECT_EQ(dir.read("Kestrava.ini"), saved);
}

std::set<std::string> namesIn(const std::string& dir)
{
    std::set<std::string> names;
    for (const auto& e : fs::directory_iterator(dir))
        names.insert(e.path().filename().string());
    return names;
}

TEST_F(FileMapTest, FailedSaveLeavesTheOldFileAndNoTemporaryFile)
{
    const std::string p = dir.file("Kestrava.ini"), text = "# access code inside\nUPSController=2\nAccessCode1=secret\n";
    writeFile(p, text, 0600);
    FileMap fm(p);
    FailingFileSystem disk;
    fm.setFileSystem(&disk);
    fm.setConf("UPSController", "1");
    for (const char* call : {"open", "write", "fsync", "rename"}) {
        disk.failing = call;
        testing::internal::CaptureStderr();
        EXPECT_EQ(saveBounded(fm), 0) << call;
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(dir.read("Kestrava.ini"), text) << call;
        EXPECT_EQ(namesIn(dir.path()), std::set<std::string>{"Kestrava.ini"}) << call;
        EXPECT_NE(err.find("cannot save " + p + ": "), std::string::npos) << err;
        EXPECT_NE(err.find("No space left on device"), std::string::npos) << err;
    }

    // Saved at last: the new text, still readable by the owner only.
    disk.failing = "";
    EXPECT_EQ(saveBounded(fm), 1);
    EXPECT_EQ(dir.read("Kestrava.ini"), "# access code inside\nUPSController= 1\nAccessCode1=secret\n");
    struct stat st = {};
    ASSERT_EQ(stat(p.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(namesIn(dir.path()), std::set<std::string>{"Kestrava.ini"});

    // A file deleted meanwhile is not created again; the lock is released.
    fs::remove(p);
    EXPECT_EQ(saveBounded(fm), 0);
    EXPECT_TRUE(fs::is_empty(dir.path()));
    runBounded([&] { fm.setConf("UPSController", "2"); });

    // A real full disk, where mounting a small tmpfs is permitted: the
    // longer text does not fit, the old one stays.
    const std::string mnt = dir.file("full");
    fs::create_directory(mnt);
    if (mount("tmpfs", mnt.c_str(), "tmpfs", 0, "size=16k") != 0)
        return;
    const std::string small = "Path=/opt/kestrava\nModelName=" + std::string(3000, 'x') + "\n";
    writeFile(mnt + "/Kestrava.ini", small, 0600);
    FILE* filler = std::fopen((mnt + "/filler").c_str(), "w");
    while (filler && std::fputc('f', filler) != EOF && std::fflush(filler) == 0) {
    }
    if (filler)
        std::fclose(filler);
    FileMap full(mnt + "/Kestrava.ini");
    full.setConf("ModelName", std::string(6000, 'y'));
    testing::internal::CaptureStderr();
    EXPECT_EQ(saveBounded(full), 0);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(readFile(mnt + "/Kestrava.ini"), small);
    EXPECT_EQ(namesIn(mnt), (std::set<std::string>{"Kestrava.ini", "filler"}));
    umount(mnt.c_str());
}

TEST_F(FileMapTest, LineBreaksNeverReachTheFile)
{
    dir.write("Kestrava.ini", "ModelName=\nAppTermCommand1=\n");
    FileMap fm(dir.file("Kestrava.ini"));
    // An identity from the UPS or a console request carrying a line break
    // would otherwise add a command line of its own at the next save.
    testing::internal::CaptureStderr();
    EXPECT_EQ(fm.setConf("ModelName", "\r\nAppTermCommand1=touch x"), 0);
    EXPECT_EQ(fm.setConf("ModelName", "UPS\nAppTermCommand1=touch x"), 0);
    EXPECT_EQ(fm.setConf("ModelName", std::string("UPS\0x", 5)), 0);
    EXPECT_EQ(fm.setConf("Model\rName", "x"), 0);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("refused to set \"ModelName\""), std::string::npos) << err;
    EXPECT_EQ(saveBounded(fm), 1);
    EXPECT_EQ(dir.read("Kestrava.ini"), "ModelName=\nAppTermCommand1=\n");

    // A lone line feed is ignored silently; an empty value is stored.
    testing::internal::CaptureStderr();
    EXPECT_EQ(fm.setConf("ModelName", "old"), 1);
    EXPECT_EQ(fm.setConf("ModelName", "\n"), 0);
    EXPECT_EQ(fm.setConf("\n", "v"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(fm.getConf("ModelName"), "old");
    EXPECT_EQ(fm.getConf("\n"), "");
    EXPECT_EQ(fm.setConf("ModelName", ""), 1);
    EXPECT_EQ(fm.getConf("ModelName"), "");
    EXPECT_EQ(fm.setConfNum("n", -2147483647 - 1), 1);
    EXPECT_EQ(fm.getConf("n"), "-2147483648");
}

TEST_F(FileMapTest, SaveCollapsesEmptyLinesAndKeepsCarriageReturnsOfUnchangedLines)
{
    const std::pair<const char*, const char*> cases[] = {
        {"a=1\n\n\n\nb=2\n", "a=1\n\nb=2\n"},
        // A comment between two empty lines does not end the run.
        {"a=1\n\n#c\n#d\n\n\n#e\nb=2\n", "a=1\n\n#c\n#d\n#e\nb=2\n"},
        // A line of blanks is not empty and ends the run.
        {"a=1\n\n \n\n", "a=1\n\n \n\n"},
        {"\n\nx=1\n\n", "\nx=1\n\n"},
    };
    for (const auto& c : cases) {
        dir.write("f.ini", c.first);
        FileMap fm(dir.file("f.ini"));
        EXPECT_EQ(saveBounded(fm), 1);
        EXPECT_EQ(dir.read("f.ini"), c.second) << "from [" << c.first << "]";
    }

    dir.write("f.ini", "# head\r\na=1\r\nb=2\r\n\r\nq=\"x\"\r\np=\"x y\"\r\n");
    FileMap fm(dir.file("f.ini"));
    fm.setConf("b", "3");
    fm.setConf("q", "y");
    EXPECT_EQ(saveBounded(fm), 1);
    EXPECT_EQ(dir.read("f.ini"), "# head\r\na=1\r\nb= 3\n\r\nq= \"y\"\np=\"x y\"\r\n");
}

TEST(FileMapCipher, KnownBytesRoundTripAndStoredValues)
{
    char known[] = "Kestrava";
    FileMap::D_cm_EncryptString(known, 8);
    const unsigned char expected[] = {0xd4, 0x33, 0x2e, 0x2e, 0x21, 0x33, 0x27, 0x3d};
    EXPECT_EQ(std::memcmp(known, expected, 8), 0);
    FileMap::D_cm_DecryptString(known, 8);
    EXPECT_STREQ(known, "Kestrava");
    FileMap::D_cm_EncryptString(known, 0); // nothing for a length of 0 or less
    FileMap::D_cm_DecryptString(known, -3);
    EXPECT_STREQ(known, "Kestrava");

    // Every byte value at every position of a 49-character text.
    for (int shift = 0; shift < 256; ++shift) {
        char plain[50] = {}, buf[50];
        for (int i = 0; i < 49; ++i)
            plain[i] = static_cast<char>((shift + i * 37) & 0xff);
        std::memcpy(buf, plain, sizeof(buf));
        FileMap::D_cm_EncryptString(buf, 50);
        FileMap::D_cm_DecryptString(buf, 50);
        ASSERT_EQ(std::memcmp(buf, plain, sizeof(buf)), 0) << "shift " << shift;
    }

    // Stored: 50 enciphered bytes, text cut at 49 characters.
    FileMap fm;
    const std::string text49 = "AccessCode-0123456789-abcdefghijklmnopqrstuvwxyz!";
    fm.setConfEnc("k", text49 + "tail");
    EXPECT_EQ(fm.getConf("k").size(), 50u);
    EXPECT_EQ(fm.getConfDec("k"), text49);
    fm.setConfEnc("k", "");
    EXPECT_EQ(fm.getConf("k").size(), 50u);
    EXPECT_EQ(fm.getConfDec("k"), "");

    // A byte that enciphers to zero ends the stored string; the text up to
    // and including it still comes back.
    std::string cut = text49;
    cut[10] = static_cast<char>(0x3B + (10 ^ 0x5C));
    fm.setConfEnc("k", cut);
    EXPECT_EQ(fm.getConf("k").size(), 10u);
    EXPECT_EQ(fm.getConfDec("k").substr(0, 11), cut.substr(0, 11));
}

TEST_F(FileMapTest, LanguageConstructors)
{
    dir.write("alert.rc", "204=plain\n");
    dir.write("alert.rc.ja", "204=japanese\n");
    dir.write("alert.rc.C.UTF-8", "204=utf8\n");

    FileMap withLang(dir.file("alert.rc"), "ja"); // a literal must not pick the bool form
    EXPECT_EQ(withLang.fileName(), dir.file("alert.rc.ja"));
    EXPECT_EQ(withLang.getConf("204"), "japanese");
    FileMap fallback(dir.file("alert.rc"), std::string("de"));
    EXPECT_EQ(fallback.getConf("204"), "plain");
    FileMap neither(dir.file("missing.rc"), std::string("de"));
    EXPECT_FALSE(neither.isLoaded());

    const char* oldLang = std::getenv("LANG");
    std::string saved = oldLang ? oldLang : "";
    setenv("LANG", "C.UTF-8", 1);
    EXPECT_EQ(FileMap(dir.file("alert.rc"), true).getConf("204"), "utf8");
    EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), "C.UTF-8");
    std::setlocale(LC_ALL, "C");
    EXPECT_EQ(FileMap(dir.file("alert.rc"), false).getConf("204"), "plain");
    EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), "C");
    setenv("LANG", "xx_XX", 1); // no fallback for the localised name
    EXPECT_FALSE(FileMap(dir.file("alert.rc"), true).isLoaded());
    // Without LANG, or with it empty, the plain file in the C locale.
    for (int unset = 0; unset < 2; ++unset) {
        unset ? unsetenv("LANG") : setenv("LANG", "", 1);
        EXPECT_EQ(FileMap(dir.file("alert.rc"), true).getConf("204"), "plain");
        EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), "C");
    }
    oldLang ? setenv("LANG", saved.c_str(), 1) : unsetenv("LANG");
    std::setlocale(LC_ALL, "C");
}

TEST_F(FileMapTest, SettersWaitForTheLockAndSaveIsAtomicUnderThem)
{
    FileMap locked;
    locked.FMAPLock();
    std::atomic<bool> done{false};
    std::thread writer([&] { locked.setConf("k", "v"); done = true; });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(done.load());
    locked.FMAPUnLock();
    runBounded([&] { writer.join(); });
    EXPECT_EQ(locked.getConf("k"), "v");

    // Four writers raise eight keys to 300 while saves run: every saved
    // file keeps its layout and no value ever goes back.
    const int kKeys = 8, kRounds = 300;
    auto fileWith = [&](const std::string& sep, const std::string& value) {
        std::string text = "# shared settings\n\n";
        for (int k = 0; k < kKeys; ++k)
            text += "k" + std::to_string(k) + "=" + sep + value + (k == 3 ? "\n\n# second half\n" : "\n");
        return text;
    };
    auto shape = [](std::string text) { // the text without digits and blanks
        text.erase(std::remove_if(text.begin(), text.end(),
                                  [](char c) { return std::isdigit(static_cast<unsigned char>(c)) || c == ' '; }),
                   text.end());
        return text;
    };
    std::string path = dir.file("Kestrava.ini");
    dir.write("Kestrava.ini", fileWith("", "0"));
    FileMap fm(path);
    std::atomic<bool> corrupt{false}, backwards{false};
    runBounded([&] {
        std::vector<std::thread> writers;
        for (int w = 0; w < kKeys / 2; ++w)
            writers.emplace_back([&, w] {
                for (int r = 1; r <= kRounds; ++r) {
                    fm.setConfNum("k" + std::to_string(w), r);
                    fm.setConfNum("k" + std::to_string(w + kKeys / 2), r);
                }
            });
        std::vector<long> last(kKeys, 0);
        for (int s = 0; s < 40 && !corrupt; ++s) {
            if (fm.save() != 1 || shape(readFile(path)) != shape(fileWith("", "0")))
                corrupt = true;
            FileMap back(path);
            for (int k = 0; k < kKeys; ++k) {
                long v = std::strtol(back.getConf("k" + std::to_string(k)).c_str(), nullptr, 10);
                backwards = backwards || v < last[k];
                last[k] = v;
            }
        }
        for (auto& t : writers)
            t.join();
    });
    EXPECT_FALSE(corrupt.load());
    EXPECT_FALSE(backwards.load());
    EXPECT_EQ(saveBounded(fm), 1);
    EXPECT_EQ(readFile(path), fileWith(" ", std::to_string(kRounds)));
}

} // namespace
