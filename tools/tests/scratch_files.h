#ifndef NK_TOOLS_TESTS_SCRATCH_FILES_H
#define NK_TOOLS_TESTS_SCRATCH_FILES_H

// Scratch directories and reproducible file content for the tools' unit tests.

#include <cstdlib>
#include <dirent.h>
#include <stdexcept>
#include <string>
#include <vector>

#include "tBlob.h"

// A new, empty directory /tmp/nk-<purpose>-XXXXXX.
inline std::string freshDirectory(std::string const& purpose)
{
    std::string path = "/tmp/nk-" + purpose + "-XXXXXX";
    if (!::mkdtemp(&path[0])) throw std::runtime_error("cannot make a directory like " + path);
    return path;
}

// The names in directory, in the order they are read, without those starting with a dot.
inline std::vector<std::string> filesIn(std::string const& directory)
{
    std::vector<std::string> names;
    if (DIR* dir = ::opendir(directory.c_str())) {
        while (dirent* entry = ::readdir(dir))
            if (entry->d_name[0] != '.') names.push_back(entry->d_name);
        ::closedir(dir);
    }
    return names;
}

// size bytes that compress poorly, the same for the same seed.
inline tBlob patterned(unsigned int size, unsigned int seed)
{
    tBlob content;
    unsigned char* bytes = content.resize(size);
    unsigned int x = seed;
    for (unsigned int i = 0; i < size; ++i) {
        x = x * 1103515245u + 12345u;
        bytes[i] = static_cast<unsigned char>(x >> 16);
    }
    return content;
}

#endif
