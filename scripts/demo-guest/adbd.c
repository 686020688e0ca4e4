/* The demo guest's debug bridge daemon: the device side of the debug bridge
 * over TCP, without authentication. It offers the shell service (raw or pty,
 * in the plain and the packet form that carries the exit status) and the sync
 * service (STAT, LIST, SEND, RECV, QUIT) that file transfers use.
 *
 *   adbd [PORT [PROPERTIES]]       (defaults: 5555, /etc/build.prop)
 *
 * One process per connection, so a client that sends garbage ends only its
 * own connection. The properties file holds "key=value" lines; the product
 * name, model and device among them make the banner. */
#define _GNU_SOURCE
#include "adb_wire.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#define OUR_VERSION ADB_VERSION_NO_CHECKSUM
#define MAX_PAYLOAD (256 * 1024)
/* A stream stops reading its source while this much waits for the host. */
#define HIGH_WATER (512 * 1024)
#define MAX_STREAMS 64
#define MAX_CONNECTIONS 32

struct buf {
    uint8_t *data;
    size_t len, cap;
};

enum kind { KIND_SHELL, KIND_SYNC };

struct stream {
    uint32_t local, remote;
    enum kind kind;
    int v2, pty;
    int ready;       /* the host took our last write */
    int finished;    /* nothing more is added to out */
    int okay_owed;   /* the host's last write is acknowledged once stdin drains */
    int end_input;   /* the child's input closes once what is queued is written */
    struct buf out, in, to_child;
    pid_t pid;
    int child_in, child_out, child_err, exited, status;
    int send_fd, recv_fd;  /* a file being received (SEND) or sent (RECV) */
    char path[SYNC_MAX_PATH + 1], tmp[SYNC_MAX_PATH + 32], fail[SYNC_MAX_PATH + 128];
    unsigned mode;
};

struct conn {
    int fd, online;
    uint32_t version, max_payload, next_id;
    struct buf in;
    struct stream *streams[MAX_STREAMS];
    const char *props;
};

static void die(const char *what)
{
    fprintf(stderr, "adbd: %s: %s\n", what, strerror(errno));
    exit(1);
}

static void buf_add(struct buf *b, const void *p, size_t n)
{
    if (b->len + n > b->cap) {
        size_t cap = b->cap ? b->cap : 4096;
        while (cap < b->len + n)
            cap *= 2;
        uint8_t *data = realloc(b->data, cap);
        if (!data)
            die("out of memory");
        b->data = data;
        b->cap = cap;
    }
    memcpy(b->data + b->len, p, n);
    b->len += n;
}

static void buf_drop(struct buf *b, size_t n)
{
    memmove(b->data, b->data + n, b->len - n);
    b->len -= n;
}

static void buf_free(struct buf *b)
{
    free(b->data);
    memset(b, 0, sizeof *b);
}

static void write_all(int fd, const uint8_t *p, size_t n)
{
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            exit(0); /* the host went away */
        p += w;
        n -= (size_t)w;
    }
}

static void send_msg(struct conn *c, uint32_t cmd, uint32_t a0, uint32_t a1, const void *data, uint32_t len)
{
    uint8_t header[ADB_HEADER_SIZE];
    adb_put_header(header, cmd, a0, a1, c->version < ADB_VERSION_NO_CHECKSUM ? data : NULL, len);
    write_all(c->fd, header, sizeof header);
    write_all(c->fd, data, len);
}

/* --- Banner --------------------------------------------------------------- */

static void prop_value(const char *props, const char *key, char *value, size_t size)
{
    char line[512];
    size_t klen = strlen(key);
    FILE *f = fopen(props, "r");
    snprintf(value, size, "unknown");
    if (!f)
        return;
    while (fgets(line, sizeof line, f)) {
        if (strncmp(line, key, klen) == 0 && line[klen] == '=') {
            line[strcspn(line, "\r\n")] = 0;
            /* ';' separates the banner's fields. */
            line[klen + 1 + strcspn(line + klen + 1, ";")] = 0;
            snprintf(value, size, "%s", line + klen + 1);
            break;
        }
    }
    fclose(f);
}

static void send_banner(struct conn *c)
{
    char name[128], model[128], device[128], banner[512];
    prop_value(c->props, "ro.product.name", name, sizeof name);
    prop_value(c->props, "ro.product.model", model, sizeof model);
    prop_value(c->props, "ro.product.device", device, sizeof device);
    int n = snprintf(banner, sizeof banner,
                     "device::ro.product.name=%s;ro.product.model=%s;ro.product.device=%s;features=shell_v2",
                     name, model, device);
    send_msg(c, ADB_CNXN, c->version, c->max_payload, banner, (uint32_t)n);
}

/* --- Streams ---------------------------------------------------------------- */

static struct stream *find_stream(struct conn *c, uint32_t local)
{
    for (int i = 0; i < MAX_STREAMS; i++)
        if (c->streams[i] && c->streams[i]->local == local)
            return c->streams[i];
    return NULL;
}

static void close_fd(int *fd)
{
    if (*fd >= 0)
        close(*fd);
    *fd = -1;
}

static void stream_free(struct conn *c, struct stream *s)
{
    if (s->pid > 0 && !s->exited) {
        kill(-s->pid, SIGKILL);
        kill(s->pid, SIGKILL);
        waitpid(s->pid, NULL, 0);
    }
    close_fd(&s->child_in);
    close_fd(&s->child_out);
    close_fd(&s->child_err);
    close_fd(&s->recv_fd);
    if (s->send_fd >= 0) {
        /* A transfer cut short leaves no half-written file. */
        close_fd(&s->send_fd);
        unlink(s->tmp);
    }
    buf_free(&s->out);
    buf_free(&s->in);
    buf_free(&s->to_child);
    for (int i = 0; i < MAX_STREAMS; i++)
        if (c->streams[i] == s)
            c->streams[i] = NULL;
    free(s);
}

static void free_all_streams(struct conn *c)
{
    for (int i = 0; i < MAX_STREAMS; i++)
        if (c->streams[i])
            stream_free(c, c->streams[i]);
}

static struct stream *stream_new(struct conn *c, uint32_t remote, enum kind kind)
{
    for (int i = 0; i < MAX_STREAMS; i++) {
        if (c->streams[i])
            continue;
        struct stream *s = calloc(1, sizeof *s);
        if (!s)
            die("out of memory");
        s->local = ++c->next_id;
        s->remote = remote;
        s->kind = kind;
        s->ready = 1;
        s->child_in = s->child_out = s->child_err = s->send_fd = s->recv_fd = -1;
        c->streams[i] = s;
        return s;
    }
    return NULL;
}

/* --- Shell ------------------------------------------------------------------- */

static void shell_packet(struct stream *s, uint8_t id, const void *data, uint32_t len)
{
    uint8_t header[SHELL_HEADER_SIZE];
    header[0] = id;
    wire_put_le32(header + 1, len);
    buf_add(&s->out, header, sizeof header);
    buf_add(&s->out, data, len);
}

static void exec_shell(const char *command, const char *term)
{
    char termvar[128];
    snprintf(termvar, sizeof termvar, "TERM=%s", term);
    char *env[] = {"PATH=/bin:/sbin:/usr/bin:/usr/sbin", "HOME=/", "SHELL=/bin/sh", termvar, NULL};
    signal(SIGPIPE, SIG_DFL);
    if (*command)
        execle("/bin/sh", "sh", "-c", command, (char *)NULL, env);
    else
        execle("/bin/sh", "-sh", (char *)NULL, env);
    _exit(127);
}

static int start_pty(struct stream *s, const char *command, const char *term)
{
    int master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || grantpt(master) < 0 || unlockpt(master) < 0)
        return -1;
    const char *slave = ptsname(master);
    s->pid = fork();
    if (s->pid < 0)
        return -1;
    if (s->pid == 0) {
        setsid();
        int fd = open(slave, O_RDWR);
        if (fd < 0)
            _exit(127);
        ioctl(fd, TIOCSCTTY, 0);
        dup2(fd, 0);
        dup2(fd, 1);
        dup2(fd, 2);
        if (fd > 2)
            close(fd);
        close(master);
        exec_shell(command, term);
    }
    s->child_out = master;
    s->child_in = dup(master);
    return 0;
}

static int start_pipes(struct stream *s, const char *command)
{
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) < 0 || pipe2(out, O_CLOEXEC) < 0 || pipe2(err, O_CLOEXEC) < 0)
        return -1;
    s->pid = fork();
    if (s->pid < 0)
        return -1;
    if (s->pid == 0) {
        setpgid(0, 0);
        dup2(in[0], 0);
        dup2(out[1], 1);
        /* The plain form has one stream for both outputs. */
        dup2(s->v2 ? err[1] : out[1], 2);
        exec_shell(command, "dumb");
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    s->child_in = in[1];
    s->child_out = out[0];
    s->child_err = err[0];
    return 0;
}

/* "shell[,v2][,raw|,pty][,TERM=name]:command" */
static int open_shell(struct stream *s, const char *service)
{
    const char *colon = strchr(service, ':');
    char args[256], term[64] = "dumb";
    int pty = -1;
    snprintf(args, sizeof args, "%.*s", (int)(colon - service), service);
    for (char *save = NULL, *arg = strtok_r(args, ",", &save); arg; arg = strtok_r(NULL, ",", &save)) {
        if (strcmp(arg, "v2") == 0)
            s->v2 = 1;
        else if (strcmp(arg, "pty") == 0)
            pty = 1;
        else if (strcmp(arg, "raw") == 0)
            pty = 0;
        else if (strncmp(arg, "TERM=", 5) == 0)
            snprintf(term, sizeof term, "%s", arg + 5);
    }
    const char *command = colon + 1;
    s->pty = pty < 0 ? *command == 0 : pty;
    if ((s->pty ? start_pty(s, command, term) : start_pipes(s, command)) < 0)
        return -1;
    fcntl(s->child_in, F_SETFL, O_NONBLOCK);
    return 0;
}

static void set_window(struct stream *s, const uint8_t *data, uint32_t len)
{
    char text[64];
    struct winsize ws = {0};
    unsigned rows, cols, x, y;
    snprintf(text, sizeof text, "%.*s", (int)len, (const char *)data);
    if (s->pty && sscanf(text, "%ux%u,%ux%u", &rows, &cols, &x, &y) == 4) {
        ws.ws_row = (unsigned short)rows;
        ws.ws_col = (unsigned short)cols;
        ws.ws_xpixel = (unsigned short)x;
        ws.ws_ypixel = (unsigned short)y;
        ioctl(s->child_out, TIOCSWINSZ, &ws);
    }
}

/* The host's bytes for a shell: stdin, raw or in packets. 0, or -1 for
 * bytes that are not shell packets. */
static int shell_input(struct stream *s, uint32_t max_payload)
{
    if (!s->v2) {
        buf_add(&s->to_child, s->in.data, s->in.len);
        buf_drop(&s->in, s->in.len);
        return 0;
    }
    for (;;) {
        uint8_t id;
        uint32_t len;
        size_t used;
        const char *why;
        int r = shell_parse(s->in.data, s->in.len, max_payload, &id, &len, &used, &why);
        if (r == WIRE_MORE)
            return 0;
        if (r == WIRE_BAD)
            return -1;
        const uint8_t *data = s->in.data + SHELL_HEADER_SIZE;
        if (id == SHELL_STDIN)
            buf_add(&s->to_child, data, len);
        else if (id == SHELL_CLOSE_STDIN && !s->pty)
            s->end_input = 1;
        else if (id == SHELL_WINDOW)
            set_window(s, data, len);
        buf_drop(&s->in, used);
        if (s->end_input && s->to_child.len == 0)
            close_fd(&s->child_in);
    }
}

/* Child output into the stream; 0 at the end of it. */
static int read_child(struct stream *s, int *fd, uint8_t id)
{
    uint8_t data[32 * 1024];
    ssize_t n = read(*fd, data, sizeof data);
    if (n < 0 && (errno == EINTR || errno == EAGAIN))
        return 1;
    if (n <= 0) { /* a pty's master reads EIO once the child is gone */
        if (*fd == s->child_out && s->pty)
            close_fd(&s->child_in);
        close_fd(fd);
        return 0;
    }
    if (s->v2)
        shell_packet(s, id, data, (uint32_t)n);
    else
        buf_add(&s->out, data, (size_t)n);
    return 1;
}

static void reap_child(struct stream *s)
{
    int status;
    if (s->pid <= 0 || s->exited || waitpid(s->pid, &status, WNOHANG) != s->pid)
        return;
    s->exited = 1;
    s->status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

static void finish_shell(struct stream *s)
{
    if (s->finished || s->child_out >= 0 || s->child_err >= 0)
        return;
    reap_child(s);
    if (!s->exited)
        return;
    if (s->v2) {
        uint8_t code = (uint8_t)s->status;
        shell_packet(s, SHELL_EXIT, &code, 1);
    }
    s->finished = 1;
}

/* --- Sync ---------------------------------------------------------------------- */

static void sync_reply(struct stream *s, uint32_t id, const uint32_t *words, int count, const void *data,
                       uint32_t len)
{
    uint8_t header[24];
    wire_put_le32(header, id);
    for (int i = 0; i < count; i++)
        wire_put_le32(header + 4 + 4 * i, words[i]);
    buf_add(&s->out, header, 4 + 4 * (size_t)count);
    if (len)
        buf_add(&s->out, data, len);
}

static void sync_fail(struct stream *s, const char *message)
{
    uint32_t len = (uint32_t)strlen(message);
    sync_reply(s, SYNC_FAIL, &len, 1, message, len);
}

static void sync_stat(struct stream *s, const char *path)
{
    struct stat st;
    uint32_t words[3] = {0, 0, 0};
    if (lstat(path, &st) == 0) {
        words[0] = st.st_mode;
        words[1] = (uint32_t)st.st_size;
        words[2] = (uint32_t)st.st_mtime;
    }
    sync_reply(s, SYNC_STAT, words, 3, NULL, 0);
}

static void sync_list(struct stream *s, const char *path)
{
    DIR *dir = opendir(path);
    struct dirent *entry;
    char full[PATH_MAX];
    struct stat st;
    while (dir && (entry = readdir(dir))) {
        snprintf(full, sizeof full, "%s/%s", path, entry->d_name);
        if (lstat(full, &st) < 0)
            continue;
        uint32_t len = (uint32_t)strlen(entry->d_name);
        uint32_t words[4] = {st.st_mode, (uint32_t)st.st_size, (uint32_t)st.st_mtime, len};
        sync_reply(s, SYNC_DENT, words, 4, entry->d_name, len);
    }
    if (dir)
        closedir(dir);
    uint32_t done[4] = {0, 0, 0, 0};
    sync_reply(s, SYNC_DONE, done, 4, NULL, 0);
}

static void make_parents(const char *path)
{
    char dir[SYNC_MAX_PATH + 1];
    snprintf(dir, sizeof dir, "%s", path);
    for (char *p = dir + 1; (p = strchr(p, '/')); p++) {
        *p = 0;
        mkdir(dir, 0755);
        *p = '/';
    }
}

/* "path,mode": the file is written beside its final name and renamed into
 * place when complete. */
static void sync_send(struct stream *s, const char *target)
{
    const char *comma = strrchr(target, ',');
    s->fail[0] = 0;
    s->mode = comma ? (unsigned)strtoul(comma + 1, NULL, 10) : 0644;
    snprintf(s->path, sizeof s->path, "%.*s", comma ? (int)(comma - target) : (int)strlen(target), target);
    if (S_ISLNK(s->mode)) {
        snprintf(s->fail, sizeof s->fail, "links cannot be pushed to this device");
        return;
    }
    make_parents(s->path);
    snprintf(s->tmp, sizeof s->tmp, "%s.adbd-XXXXXX", s->path);
    s->send_fd = mkostemp(s->tmp, O_CLOEXEC);
    if (s->send_fd < 0)
        snprintf(s->fail, sizeof s->fail, "cannot create %s: %s", s->path, strerror(errno));
}

static void sync_data(struct stream *s, const uint8_t *data, uint32_t len)
{
    if (s->send_fd < 0)
        return;
    for (uint32_t done = 0; done < len;) {
        ssize_t w = write(s->send_fd, data + done, len - done);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0) {
            snprintf(s->fail, sizeof s->fail, "cannot write %s: %s", s->path, strerror(w < 0 ? errno : ENOSPC));
            close_fd(&s->send_fd);
            unlink(s->tmp);
            return;
        }
        done += (uint32_t)w;
    }
}

static void sync_done(struct stream *s, uint32_t mtime)
{
    if (s->send_fd >= 0) {
        fchmod(s->send_fd, s->mode & 07777);
        int synced = fsync(s->send_fd);
        close_fd(&s->send_fd);
        struct timeval times[2] = {{mtime, 0}, {mtime, 0}};
        utimes(s->tmp, times);
        if (synced < 0 || rename(s->tmp, s->path) < 0) {
            snprintf(s->fail, sizeof s->fail, "cannot write %s: %s", s->path, strerror(errno));
            unlink(s->tmp);
        }
    } else if (!s->fail[0]) {
        snprintf(s->fail, sizeof s->fail, "no file was being sent");
    }
    if (s->fail[0]) {
        sync_fail(s, s->fail);
    } else {
        uint32_t zero = 0;
        sync_reply(s, SYNC_OKAY, &zero, 1, NULL, 0);
    }
}

static void sync_recv(struct stream *s, const char *path)
{
    struct stat st;
    s->recv_fd = open(path, O_RDONLY | O_CLOEXEC);
    if (s->recv_fd >= 0 && fstat(s->recv_fd, &st) == 0 && S_ISDIR(st.st_mode)) {
        close_fd(&s->recv_fd);
        errno = EISDIR;
    }
    if (s->recv_fd < 0) {
        char message[SYNC_MAX_PATH + 64];
        snprintf(message, sizeof message, "cannot read %s: %s", path, strerror(errno));
        sync_fail(s, message);
    }
}

/* Sends the next chunks of the file being received by the host. */
static void pump_recv(struct stream *s)
{
    uint8_t data[SYNC_MAX_CHUNK];
    while (s->recv_fd >= 0 && s->out.len < HIGH_WATER) {
        ssize_t n = read(s->recv_fd, data, sizeof data);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            close_fd(&s->recv_fd);
            uint32_t zero = 0;
            if (n < 0)
                sync_fail(s, strerror(errno));
            else
                sync_reply(s, SYNC_DONE, &zero, 1, NULL, 0);
            return;
        }
        uint32_t len = (uint32_t)n;
        sync_reply(s, SYNC_DATA, &len, 1, data, len);
    }
}

static void sync_request(struct stream *s, uint32_t id, uint32_t arg, const uint8_t *body)
{
    char path[SYNC_MAX_PATH + 1];
    if (id != SYNC_DATA && id != SYNC_DONE)
        snprintf(path, sizeof path, "%.*s", (int)arg, (const char *)body);
    switch (id) {
    case SYNC_STAT: sync_stat(s, path); break;
    case SYNC_LIST: sync_list(s, path); break;
    case SYNC_SEND: sync_send(s, path); break;
    case SYNC_DATA: sync_data(s, body, arg); break;
    case SYNC_DONE: sync_done(s, arg); break;
    case SYNC_RECV: sync_recv(s, path); break;
    case SYNC_QUIT: s->finished = 1; break;
    }
}

/* The host's sync requests; -1 for bytes that are none. */
static int sync_input(struct stream *s)
{
    while (!s->finished && s->recv_fd < 0) {
        uint32_t id, arg;
        size_t used;
        const char *why;
        int r = sync_parse(s->in.data, s->in.len, &id, &arg, &used, &why);
        if (r == WIRE_MORE)
            return 0;
        if (r == WIRE_BAD)
            return -1;
        sync_request(s, id, arg, s->in.data + 8);
        buf_drop(&s->in, used);
    }
    return 0;
}

/* --- Messages -------------------------------------------------------------------- */

static void open_stream(struct conn *c, uint32_t remote, const uint8_t *data, uint32_t len)
{
    char service[4096];
    snprintf(service, sizeof service, "%.*s", (int)len, (const char *)data);
    int shell = strncmp(service, "shell", 5) == 0 && (service[5] == ':' || service[5] == ',')
        && strchr(service, ':');
    int sync = strcmp(service, "sync:") == 0;
    struct stream *s = (shell || sync) && remote ? stream_new(c, remote, shell ? KIND_SHELL : KIND_SYNC) : NULL;
    if (s && shell && open_shell(s, service) < 0) {
        stream_free(c, s);
        s = NULL;
    }
    if (!s) {
        send_msg(c, ADB_CLSE, 0, remote, NULL, 0);
        return;
    }
    send_msg(c, ADB_OKAY, s->local, s->remote, NULL, 0);
}

static void stream_write(struct conn *c, struct stream *s, const uint8_t *data, uint32_t len)
{
    buf_add(&s->in, data, len);
    int r = s->kind == KIND_SYNC ? sync_input(s) : shell_input(s, c->max_payload);
    if (r < 0) {
        send_msg(c, ADB_CLSE, s->local, s->remote, NULL, 0);
        stream_free(c, s);
        return;
    }
    if (s->to_child.len > 0)
        s->okay_owed = 1;
    else
        send_msg(c, ADB_OKAY, s->local, s->remote, NULL, 0);
}

static void handshake(struct conn *c, const struct adb_header *h)
{
    free_all_streams(c);
    c->version = h->arg0 < OUR_VERSION ? h->arg0 : OUR_VERSION;
    c->max_payload = h->arg1 < MAX_PAYLOAD ? h->arg1 : MAX_PAYLOAD;
    if (c->max_payload < 1024)
        c->max_payload = 1024;
    c->online = 1;
    send_banner(c);
}

static void handle(struct conn *c, const struct adb_header *h, const uint8_t *data)
{
    if (h->command == ADB_CNXN) {
        handshake(c, h);
        return;
    }
    if (!c->online)
        return;
    struct stream *s = find_stream(c, h->arg1);
    if (h->command == ADB_OPEN)
        open_stream(c, h->arg0, data, h->length);
    else if (s && h->command == ADB_OKAY)
        s->ready = 1;
    else if (s && h->command == ADB_WRTE)
        stream_write(c, s, data, h->length);
    else if (s && h->command == ADB_CLSE)
        stream_free(c, s);
}

/* --- Connection loop ------------------------------------------------------------- */

/* Sends what each stream has for the host, one message at a time as the host
 * takes them, and closes the streams that are done. */
static void pump(struct conn *c)
{
    for (int i = 0; i < MAX_STREAMS; i++) {
        struct stream *s = c->streams[i];
        if (!s)
            continue;
        if (s->kind == KIND_SYNC) {
            pump_recv(s);
            if (s->recv_fd < 0 && sync_input(s) < 0)
                s->finished = 1;
        } else {
            finish_shell(s);
        }
        if (s->ready && s->out.len > 0) {
            uint32_t n = s->out.len < c->max_payload ? (uint32_t)s->out.len : c->max_payload;
            send_msg(c, ADB_WRTE, s->local, s->remote, s->out.data, n);
            buf_drop(&s->out, n);
            s->ready = 0;
        }
        if (s->finished && s->out.len == 0) {
            send_msg(c, ADB_CLSE, s->local, s->remote, NULL, 0);
            stream_free(c, s);
        }
    }
}

static void feed_child(struct conn *c, struct stream *s)
{
    ssize_t w = write(s->child_in, s->to_child.data, s->to_child.len);
    if (w < 0 && errno != EAGAIN && errno != EINTR) {
        /* The child closed its input: what it did not read is dropped. */
        close_fd(&s->child_in);
        s->to_child.len = 0;
    } else if (w > 0) {
        buf_drop(&s->to_child, (size_t)w);
    }
    if (s->to_child.len == 0 && s->end_input)
        close_fd(&s->child_in);
    if (s->to_child.len == 0 && s->okay_owed) {
        s->okay_owed = 0;
        send_msg(c, ADB_OKAY, s->local, s->remote, NULL, 0);
    }
}

static void read_host(struct conn *c)
{
    uint8_t data[64 * 1024];
    ssize_t n = read(c->fd, data, sizeof data);
    if (n < 0 && errno == EINTR)
        return;
    if (n <= 0) {
        free_all_streams(c);
        exit(0);
    }
    buf_add(&c->in, data, (size_t)n);
    for (;;) {
        struct adb_header h;
        size_t used;
        const char *why;
        int r = adb_parse(c->in.data, c->in.len, MAX_PAYLOAD, c->version < ADB_VERSION_NO_CHECKSUM, &h, &used,
                          &why);
        if (r == WIRE_MORE)
            return;
        if (r == WIRE_BAD) {
            fprintf(stderr, "adbd: dropping a client: %s\n", why);
            free_all_streams(c);
            exit(0);
        }
        handle(c, &h, c->in.data + ADB_HEADER_SIZE);
        buf_drop(&c->in, used);
    }
}

/* The poll set: the host, and each shell's output and input while they have
 * room or data. Returns the count; *waiting says a child's end is awaited. */
static nfds_t poll_set(struct conn *c, struct pollfd *fds, struct stream **owner, int *waiting)
{
    nfds_t n = 0;
    fds[n] = (struct pollfd){c->fd, POLLIN, 0};
    owner[n++] = NULL;
    *waiting = 0;
    for (int i = 0; i < MAX_STREAMS; i++) {
        struct stream *s = c->streams[i];
        if (!s || s->kind != KIND_SHELL)
            continue;
        int room = s->out.len < HIGH_WATER;
        int *ends[3] = {&s->child_out, &s->child_err, &s->child_in};
        for (int e = 0; e < 3; e++) {
            short events = e < 2 ? (room ? POLLIN : 0) : (s->to_child.len ? POLLOUT : 0);
            if (*ends[e] >= 0 && events) {
                fds[n] = (struct pollfd){*ends[e], events, 0};
                owner[n++] = s;
            }
        }
        *waiting |= !s->finished && s->child_out < 0 && s->child_err < 0;
    }
    return n;
}

static void serve(int fd, const char *props)
{
    struct conn c = {.fd = fd, .version = ADB_VERSION_MIN, .max_payload = 4096, .props = props};
    struct pollfd fds[1 + 3 * MAX_STREAMS];
    struct stream *owner[1 + 3 * MAX_STREAMS];
    for (;;) {
        pump(&c);
        int waiting;
        nfds_t n = poll_set(&c, fds, owner, &waiting);
        if (poll(fds, n, waiting ? 50 : -1) < 0 && errno != EINTR)
            die("poll");
        for (nfds_t i = 1; i < n; i++) {
            struct stream *s = owner[i];
            /* An end closed earlier in this round is not read again. */
            if (!fds[i].revents)
                continue;
            if (fds[i].fd == s->child_in)
                feed_child(&c, s);
            else if (fds[i].fd == s->child_out)
                read_child(s, &s->child_out, SHELL_STDOUT);
            else if (fds[i].fd == s->child_err)
                read_child(s, &s->child_err, SHELL_STDERR);
        }
        if (fds[0].revents)
            read_host(&c);
    }
}

int main(int argc, char **argv)
{
    int port = argc > 1 ? atoi(argv[1]) : 5555;
    const char *props = argc > 2 ? argv[2] : "/etc/build.prop";
    int one = 1;
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in addr = {.sin_family = AF_INET, .sin_port = htons((uint16_t)port)};
    if (listener < 0)
        die("socket");
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (bind(listener, (struct sockaddr *)&addr, sizeof addr) < 0 || listen(listener, 16) < 0)
        die("listen");
    signal(SIGPIPE, SIG_IGN);
    int live = 0;
    for (;;) {
        int fd = accept4(listener, NULL, NULL, SOCK_CLOEXEC);
        while (live > 0 && waitpid(-1, NULL, WNOHANG) > 0)
            live--;
        if (fd < 0)
            continue;
        /* A client that opens connection after connection gets no more
         * processes than this; the ones it has go on. */
        if (live >= MAX_CONNECTIONS) {
            close(fd);
            continue;
        }
        pid_t pid = fork();
        if (pid == 0) {
            close(listener);
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            serve(fd, props);
        }
        live += pid > 0;
        close(fd);
    }
}
