// A small program for the process tests. It runs its arguments as a script
// of steps, in order:
//   out TEXT      write TEXT to standard output
//   err TEXT      write TEXT to standard error
//   outnul        write a NUL byte to standard output
//   errnul        write a NUL byte to standard error
//   sleep MS      sleep MS milliseconds
//   exit CODE     exit at once with CODE
//   ignoreint     ignore SIGINT from now on
//   markint FILE  on SIGINT, write "SIGINT" to FILE and exit with 130
//   pidfile FILE  write the process id to FILE
//   append FILE TEXT  append TEXT and a line break to FILE
// Without an exit step it exits with 0.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

const char *g_markFile = nullptr;

void writeAll(int fd, const char *data, size_t size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n <= 0)
            return;
        data += n;
        size -= static_cast<size_t>(n);
    }
}

void writeFile(const char *path, const std::string &text, bool append)
{
    const int fd = ::open(path, O_WRONLY | O_CREAT | (append ? O_APPEND : O_TRUNC), 0644);
    if (fd < 0)
        return;
    writeAll(fd, text.data(), text.size());
    ::close(fd);
}

void onInterrupt(int)
{
    static const char text[] = "SIGINT";
    const int fd = ::open(g_markFile, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) {
        writeAll(fd, text, sizeof text - 1);
        ::close(fd);
    }
    ::_exit(130);
}

} // namespace

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        const std::string step = argv[i];
        const char *arg = i + 1 < argc ? argv[i + 1] : "";
        if (step == "out") {
            writeAll(1, arg, std::strlen(arg));
            ++i;
        } else if (step == "err") {
            writeAll(2, arg, std::strlen(arg));
            ++i;
        } else if (step == "outnul") {
            writeAll(1, "", 1);
        } else if (step == "errnul") {
            writeAll(2, "", 1);
        } else if (step == "sleep") {
            std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(arg)));
            ++i;
        } else if (step == "exit") {
            return std::atoi(arg);
        } else if (step == "ignoreint") {
            std::signal(SIGINT, SIG_IGN);
        } else if (step == "markint") {
            g_markFile = arg;
            std::signal(SIGINT, onInterrupt);
            ++i;
        } else if (step == "pidfile") {
            writeFile(arg, std::to_string(::getpid()), false);
            ++i;
        } else if (step == "append") {
            const char *text = i + 2 < argc ? argv[i + 2] : "";
            writeFile(arg, std::string(text) + "\n", true);
            i += 2;
        } else {
            std::fprintf(stderr, "unknown step %s\n", step.c_str());
            return 99;
        }
    }
    return 0;
}
