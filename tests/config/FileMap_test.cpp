// Tests of FileMap on real files in a private temporary directory.
#include "config/FileMap.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>
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

std::set<std::string> namesIn(const std::string& dir)
{
    std::set<std::string> names;
    for (const auto& e : fs::directory_iterator(dir))
        names.insert(e.path().filename().string());
    return names;
}

class FileMapTest : public ::testing::Test {
protected:
    TempDir dir{"filemap_test."};
};

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

    // A missing file clears the map and reports so.
    fs::remove(p);
    EXPECT_EQ(fm.load(), 0);
    EXPECT_TRUE(!fm.isLoaded() && fm.getConf("a").empty());

    // A literal language suffix picks the language form, with its fallback.
    dir.write("alert.rc", "204=plain\n");
    dir.write("alert.rc.ja", "204=japanese\n");
    EXPECT_EQ(FileMap(dir.file("alert.rc"), "ja").getConf("204"), "japanese");
    EXPECT_EQ(FileMap(dir.file("alert.rc"), "de").getConf("204"), "plain");
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

    // Saving the saved file unchanged leaves its bytes alone. Runs of empty
    // lines collapse: a comment between two empty lines does not end the run;
    // a line of blanks does.
    const std::pair<std::string, std::string> cases[] = {
        {saved, saved}, {"a=1\n\n#c\n#d\n\n\n#e\nb=2\n", "a=1\n\n#c\n#d\n#e\nb=2\n"}, {"\n\nx=1\n \n\n", "\nx=1\n \n\n"}};
    for (const auto& c : cases) {
        dir.write("f.ini", c.first);
        FileMap one(dir.file("f.ini"));
        EXPECT_EQ(saveBounded(one), 1);
        EXPECT_EQ(dir.read("f.ini"), c.second) << "from [" << c.first << "]";
    }

    dir.write("f.ini", "# head\r\na=1\r\nb=2\r\n\r\nq=\"x\"\r\np=\"x y\"\r\n");
    FileMap crlf(dir.file("f.ini"));
    crlf.setConf("b", "3");
    crlf.setConf("q", "y");
    EXPECT_EQ(saveBounded(crlf), 1);
    EXPECT_EQ(dir.read("f.ini"), "# head\r\na=1\r\nb= 3\n\r\nq= \"y\"\np=\"x y\"\r\n");
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
    EXPECT_EQ(stat(p.c_str(), &st) == 0 ? st.st_mode & 07777 : 0, 0600u);
    EXPECT_EQ(namesIn(dir.path()), std::set<std::string>{"Kestrava.ini"});

    // A file deleted meanwhile is not created again; the lock is released.
    fs::remove(p);
    EXPECT_EQ(saveBounded(fm), 0);
    EXPECT_TRUE(fs::is_empty(dir.path()));
    runBounded([&] { fm.setConf("UPSController", "2"); });
}

TEST_F(FileMapTest, LineBreaksNeverReachTheFile)
{
    dir.write("Kestrava.ini", "ModelName=\nAppTermCommand1=\n");
    FileMap fm(dir.file("Kestrava.ini"));
    // A value with a line break would add a command line at the next save.
    testing::internal::CaptureStderr();
    EXPECT_EQ(fm.setConf("ModelName", "UPS\r\nAppTermCommand1=touch x"), 0);
    EXPECT_EQ(fm.setConf("ModelName", std::string("UPS\0x", 5)), 0);
    EXPECT_EQ(fm.setConf("Model\rName", "x"), 0);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("refused to set \"ModelName\""), std::string::npos) << err;
    EXPECT_EQ(saveBounded(fm), 1);
    EXPECT_EQ(dir.read("Kestrava.ini"), "ModelName=\nAppTermCommand1=\n");

    // A lone line feed is ignored silently; an empty value is stored.
    testing::internal::CaptureStderr();
    EXPECT_EQ(fm.setConf("ModelName", "\n") + fm.setConf("\n", "v"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(fm.setConf("ModelName", "") + fm.setConfNum("n", -2147483647 - 1), 2);
    EXPECT_EQ(fm.getConf("n"), "-2147483648");
}

TEST(FileMapCipher, KnownBytesAndStoredValues)
{
    char known[] = "Kestrava";
    FileMap::D_cm_EncryptString(known, 8);
    EXPECT_EQ(std::string(known, 8), "\xd4\x33\x2e\x2e\x21\x33\x27\x3d");

    // Stored: 50 enciphered bytes, text cut at 49 characters.
    FileMap fm;
    const std::string text49 = "AccessCode-0123456789-abcdefghijklmnopqrstuvwxyz!";
    fm.setConfEnc("k", text49 + "tail");
    EXPECT_EQ(fm.getConf("k").size(), 50u);
    EXPECT_EQ(fm.getConfDec("k"), text49);
}

TEST_F(FileMapTest, SaveIsAtomicUnderConcurrentSetters)
{
    // Four writers raise four keys to 300 while saves run: every saved file
    // keeps all its lines, and the last save holds the last values.
    dir.write("Kestrava.ini", "# shared settings\n\nk0=0\nk1=0\nk2=0\nk3=0\n");
    FileMap fm(dir.file("Kestrava.ini"));
    std::atomic<bool> corrupt{false};
    runBounded([&] {
        std::vector<std::thread> writers;
        for (int w = 0; w < 4; ++w)
            writers.emplace_back([&, w] {
                for (int r = 1; r <= 300; ++r)
                    fm.setConfNum("k" + std::to_string(w), r);
            });
        for (int s = 0; s < 40; ++s)
            corrupt = corrupt || fm.save() != 1 || readLines(dir.file("Kestrava.ini")).size() != 6;
        for (auto& t : writers)
            t.join();
    });
    EXPECT_FALSE(corrupt.load());
    EXPECT_EQ(saveBounded(fm), 1);
    EXPECT_EQ(dir.read("Kestrava.ini"), "# shared settings\n\nk0= 300\nk1= 300\nk2= 300\nk3= 300\n");
}

} // namespace
