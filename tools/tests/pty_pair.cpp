// A null-modem cable made of two pseudo-terminals, for testing the serial link without
// hardware: prints the two terminal paths on one line, then copies every byte written to
// one to the other until it is terminated.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace
{
struct End
{
    int master = -1;
    int slave = -1;  // held open so the master never reads EIO while no program has the port
    char path[128] = {0};
};

bool openEnd(End& end)
{
    end.master = ::posix_openpt(O_RDWR | O_NOCTTY);
    if (end.master < 0 || ::grantpt(end.master) != 0 || ::unlockpt(end.master) != 0) return false;
    const char* name = ::ptsname(end.master);
    if (!name) return false;
    std::snprintf(end.path, sizeof end.path, "%s", name);
    end.slave = ::open(end.path, O_RDWR | O_NOCTTY);
    if (end.slave < 0) return false;
    // Raw from the start: bytes that arrive before a program opens the port must not be
    // echoed or held back by a line discipline.
    termios tio{};
    ::tcgetattr(end.slave, &tio);
    ::cfmakeraw(&tio);
    ::tcsetattr(end.slave, TCSANOW, &tio);
    return true;
}

bool copy(int from, int to)
{
    unsigned char buffer[4096];
    const ssize_t n = ::read(from, buffer, sizeof buffer);
    if (n < 0) return errno == EINTR || errno == EAGAIN || errno == EIO;
    for (ssize_t done = 0; done < n;) {
        const ssize_t w = ::write(to, buffer + done, static_cast<size_t>(n - done));
        if (w < 0 && errno != EINTR && errno != EAGAIN) return false;
        if (w > 0) done += w;
    }
    return true;
}
}

int main()
{
    End a, b;
    if (!openEnd(a) || !openEnd(b)) {
        std::fprintf(stderr, "pty_pair: cannot create pseudo-terminals\n");
        return 1;
    }
    std::printf("%s %s\n", a.path, b.path);
    std::fflush(stdout);
    std::signal(SIGPIPE, SIG_IGN);
    for (;;) {
        pollfd fds[2] = {{a.master, POLLIN, 0}, {b.master, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return 1;
        }
        if ((fds[0].revents & POLLIN) && !copy(a.master, b.master)) return 1;
        if ((fds[1].revents & POLLIN) && !copy(b.master, a.master)) return 1;
        // POLLHUP without data: nobody has the other end open right now; wait a little.
        if (!(fds[0].revents & POLLIN) && !(fds[1].revents & POLLIN)) ::usleep(10000);
    }
}
