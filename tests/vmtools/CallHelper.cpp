// The program the process tests run. Its arguments are steps, run in order:
// out TEXT, err TEXT (write to stdout/stderr), outnul, errnul (write a NUL
// byte), sleep MS, exit CODE, ignoreint (ignore SIGINT), markint FILE (on
// SIGINT write "SIGINT" to FILE and exit with 130), pidfile FILE (write the
// pid), append FILE TEXT (append TEXT and a line break). It then exits with 0.
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

const char *g_markFile = nullptr;

void writeFile(const char *path, const std::string &text, int mode)
{
    const int fd = ::open(path, O_WRONLY | O_CREAT | mode, 0644);
    if (fd >= 0 && ::write(fd, text.data(), text.size()) >= 0)
        ::close(fd);
}

void onInterrupt(int)
{
    writeFile(g_markFile, "SIGINT", O_TRUNC);
    ::_exit(130);
}

} // namespace

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        const std::string step = argv[i];
        const char *arg = i + 1 < argc ? argv[i + 1] : "";
        if (step == "outnul" || step == "errnul") {
            if (::write(step == "outnul" ? 1 : 2, "", 1) < 0)
                return 98;
            continue;
        }
        if (step == "ignoreint") {
            std::signal(SIGINT, SIG_IGN);
            continue;
        }
        ++i;
        if ((step == "out" || step == "err") && ::write(step == "out" ? 1 : 2, arg, std::strlen(arg)) < 0)
            return 98;
        if (step == "sleep") {
            std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(arg)));
        } else if (step == "exit") {
            return std::atoi(arg);
        } else if (step == "markint") {
            g_markFile = arg;
            std::signal(SIGINT, onInterrupt);
        } else if (step == "pidfile") {
            writeFile(arg, std::to_string(::getpid()), O_TRUNC);
        } else if (step == "append") {
            writeFile(arg, std::string(i + 1 < argc ? argv[++i] : "") + "\n", O_APPEND);
        } else if (step != "out" && step != "err") {
            return 99;
        }
    }
    return 0;
}
