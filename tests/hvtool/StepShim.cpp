/* Loaded into one hvtool run with LD_PRELOAD: records every fsync, rename
 * and unlink on the files under HV_SHIM_DIR, in order, to HV_SHIM_LOG, and
 * kills the process with SIGKILL at the HV_SHIM_KILL_AT-th of them (1 is
 * the first), or fails the HV_SHIM_FAIL_AT-th with EIO, instead of making
 * it. The tools hvtool runs are left alone. */
#include <cerrno>
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

int g_steps;

__attribute__((constructor)) void leaveChildrenAlone()
{
    unsetenv("LD_PRELOAD");
}

// False when the step is to fail.
bool step(const char *what, const char *path, const char *to)
{
    const char *dir = getenv("HV_SHIM_DIR");
    if (!dir || strncmp(path, dir, strlen(dir)) != 0)
        return true;
    const char *log = getenv("HV_SHIM_LOG");
    const int fd = log ? open(log, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600) : -1;
    if (fd >= 0) {
        dprintf(fd, "%s %s%s%s\n", what, path, to ? " " : "", to ? to : "");
        close(fd);
    }
    ++g_steps;
    const char *killAt = getenv("HV_SHIM_KILL_AT");
    if (killAt && g_steps == atoi(killAt))
        kill(getpid(), SIGKILL);
    const char *failAt = getenv("HV_SHIM_FAIL_AT");
    errno = EIO;
    return !failAt || g_steps != atoi(failAt);
}

template <typename F>
F next(const char *name)
{
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

int fsync(int fd)
{
    char link[64];
    char path[4096] = "";
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t n = readlink(link, path, sizeof path - 1);
    path[n > 0 ? n : 0] = '\0';
    return !step("fsync", path, nullptr) ? -1 : next<int (*)(int)>("fsync")(fd);
}

int rename(const char *from, const char *to)
{
    return !step("rename", from, to) ? -1 : next<int (*)(const char *, const char *)>("rename")(from, to);
}

int unlink(const char *path)
{
    return !step("unlink", path, nullptr) ? -1 : next<int (*)(const char *)>("unlink")(path);
}

} // extern "C"
