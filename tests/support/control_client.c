/* The daemon's client in the end-to-end tests, until `ostrel` has its control commands:
 *     ostrel_test_control_client SOCKET LINE...
 * connects, sends each LINE with a newline, and prints the reply lines as they come until
 * it has one per LINE. Exit 0 when every reply came, 3 when the daemon closed the
 * connection first, 4 after 20 s without them, 1 when it cannot connect, 2 on misuse.
 * The build signs one copy as the command-line program and leaves another unsigned. */
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static int sendAll(int fd, const char *data, size_t size) {
    while (size > 0) {
        ssize_t n = write(fd, data, size);
        if (n <= 0) {
            return -1;
        }
        data += n;
        size -= (size_t)n;
    }
    return 0;
}

int main(int argc, char **argv) {
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    struct pollfd readable;
    char chunk[65536];
    int fd, expected = argc - 2, replies = 0;
    if (argc < 2 || strlen(argv[1]) >= sizeof address.sun_path) {
        return 2;
    }
    strcpy(address.sun_path, argv[1]);
    fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, (struct sockaddr *)&address, sizeof address) != 0) {
        perror(argv[1]);
        return 1;
    }
    for (int i = 2; i < argc; ++i) {
        /* A daemon that has closed the connection makes this fail; the read says so. */
        if (sendAll(fd, argv[i], strlen(argv[i])) != 0 || sendAll(fd, "\n", 1) != 0) {
            break;
        }
    }
    readable.fd = fd;
    readable.events = POLLIN;
    while (replies < expected) {
        ssize_t n;
        if (poll(&readable, 1, 20000) != 1) {
            return 4;
        }
        n = read(fd, chunk, sizeof chunk);
        if (n <= 0) {
            return 3;
        }
        fwrite(chunk, 1, (size_t)n, stdout);
        for (ssize_t i = 0; i < n; ++i) {
            replies += chunk[i] == '\n';
        }
    }
    return 0;
}
