// Helpers shared by the benchmarks: running code with its standard output
// dropped, and the peak resident memory of code run in a child process.
#ifndef QORA_BENCH_UTIL_H
#define QORA_BENCH_UTIL_H

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>

// Runs fn with standard output sent to /dev/null (the loaders' progress bars).
inline void quietly(const std::function<void()>& fn)
{
    fflush(stdout);
    int saved = dup(STDOUT_FILENO);
    int null_fd = open("/dev/null", O_WRONLY);
    dup2(null_fd, STDOUT_FILENO);
    fn();
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    close(null_fd);
}

// Peak resident memory of fn, run quietly in a child process, in MiB.
inline double peak_mib(const std::function<void()>& fn)
{
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        quietly(fn);
        _exit(0);
    }
    int status;
    struct rusage usage;
    wait4(pid, &status, 0, &usage);
    return usage.ru_maxrss / 1024.0;
}

#endif // QORA_BENCH_UTIL_H
