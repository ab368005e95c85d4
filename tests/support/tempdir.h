// A private temporary directory for one test, removed with everything in it.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

// The whole content of a file ("" when it cannot be read).
inline std::string slurp(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

struct TempDir {
    std::string path;
    explicit TempDir(const std::string& prefix = "ferrant_test") {
        std::string tmpl = "/tmp/" + prefix + ".XXXXXX";
        if (mkdtemp(tmpl.data())) path = tmpl;
    }
    ~TempDir() {
        std::error_code ec;
        if (!path.empty()) std::filesystem::remove_all(path, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string operator/(const std::string& name) const { return path + "/" + name; }
    // Writes text to the file name in the directory; returns its path.
    std::string file(const std::string& name, const std::string& text) const {
        std::ofstream(*this / name) << text;
        return *this / name;
    }
    // Makes the subdirectory name (and its parents); returns its path.
    std::string sub(const std::string& name) const {
        std::error_code ec;
        std::filesystem::create_directories(*this / name, ec);
        return *this / name;
    }
};
