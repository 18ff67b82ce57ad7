// TempDir: a private temporary directory, removed when the object goes (only
// by the process that made it) unless kept; and the plain file helpers.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

// The whole content of a file; empty when it cannot be read.
inline std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// The lines of a text file without their line ends; none when it cannot be read.
inline std::vector<std::string> readLines(const std::string& path)
{
    std::vector<std::string> lines;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

// Makes `text` the whole content of the file, then gives it `mode` when not
// 0 (0755 for a script); false when it cannot be opened.
inline bool writeFile(const std::string& path, const std::string& text, mode_t mode = 0)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!(out << text))
        return false;
    out.close();
    return mode == 0 || chmod(path.c_str(), mode) == 0;
}

class TempDir {
public:
    // Makes "/tmp/<stem>XXXXXX"; path() is empty when that failed.
    explicit TempDir(const std::string& stem) : mOwner(getpid())
    {
        std::string tmpl = "/tmp/" + stem + "XXXXXX";
        std::vector<char> buf(tmpl.begin(), tmpl.end());
        buf.push_back('\0');
        if (mkdtemp(buf.data()))
            mPath = buf.data();
    }
    ~TempDir()
    {
        if (!mPath.empty() && !mKept && getpid() == mOwner) {
            std::error_code ec;
            std::filesystem::remove_all(mPath, ec);
        }
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    bool made() const { return !mPath.empty(); }
    // The directory, without a trailing slash.
    const std::string& path() const { return mPath; }
    // A path inside the directory.
    std::string file(const std::string& name) const { return mPath + "/" + name; }
    bool write(const std::string& name, const std::string& text) const { return writeFile(file(name), text); }
    std::string read(const std::string& name) const { return readFile(file(name)); }
    // Leaves the directory in place when the object goes.
    void keep() { mKept = true; }

private:
    std::string mPath;
    pid_t mOwner;
    bool mKept = false;
};
