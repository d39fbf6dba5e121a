// Directories for a test, and reading and writing whole files.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

// A directory under `in`, removed with its content. Its path has no links. Owns: the directory.
class TemporaryDirectory {
  public:
    explicit TemporaryDirectory(const std::filesystem::path& in = std::filesystem::temp_directory_path()) {
        std::string pattern = std::filesystem::canonical(in) / "tarnwick.XXXXXX";
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp");
        path_ = pattern;
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// Creates missing directories.
inline void writeFile(const std::filesystem::path& path, std::string_view bytes) {
    if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
}

// Empty if there is no such file.
inline std::string contentOf(const std::filesystem::path& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return std::move(content).str();
}

inline bool exists(const std::string& path) { return std::filesystem::exists(path); }

// For files that are too long to print when they differ.
inline bool hasBytes(const std::filesystem::path& path, std::string_view bytes) {
    return std::filesystem::exists(path) && contentOf(path) == bytes;
}
