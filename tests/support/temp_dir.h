// Files of a test.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

// A directory of its own while in scope, removed with everything in it.
class CCmTempDir {
public:
    CCmTempDir() {
        std::string strName = (std::filesystem::temp_directory_path() / "talvo-XXXXXX").string();
        if (!mkdtemp(strName.data()))
            std::abort();
        m_Path = strName;
    }
    ~CCmTempDir() { std::filesystem::remove_all(m_Path); }
    CCmTempDir(const CCmTempDir&) = delete;
    CCmTempDir& operator=(const CCmTempDir&) = delete;

    std::string PathOf(const std::string& aName) const { return (m_Path / aName).string(); }

    std::string Write(const std::string& aName, const std::string& aText) const {
        std::ofstream(PathOf(aName), std::ios::binary) << aText;
        // With any umask: a configuration that others may write is refused.
        std::filesystem::permissions(PathOf(aName), std::filesystem::perms(0644));
        return PathOf(aName);
    }

    std::string Read(const std::string& aName) const {
        std::ifstream file(PathOf(aName), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

private:
    std::filesystem::path m_Path;
};
