// Helpers for the fuzz targets: readers take file names, so each input is
// written to a scratch file first; the readers' progress output is dropped.
#ifndef QORA_FUZZ_UTIL_H
#define QORA_FUZZ_UTIL_H

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

// A scratch directory of this process, made once; standard output goes to
// /dev/null from then on.
inline const std::string& fuzz_dir()
{
    static const std::string dir = [] {
        char tmpl[] = "/tmp/qora_fuzz_XXXXXX";
        std::string d = mkdtemp(tmpl) ? tmpl : "/tmp";
        int null_fd = open("/dev/null", O_WRONLY);
        if (null_fd >= 0)
            dup2(null_fd, STDOUT_FILENO);
        return d;
    }();
    return dir;
}

inline std::string write_input(const std::string& name, const uint8_t* data, size_t size)
{
    std::string path = fuzz_dir() + "/" + name;
    FILE* fp = fopen(path.c_str(), "wb");
    if (fp != nullptr) {
        fwrite(data, 1, size, fp);
        fclose(fp);
    }
    return path;
}

#endif // QORA_FUZZ_UTIL_H
