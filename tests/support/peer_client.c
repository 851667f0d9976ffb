/* The peer of the vetting tests: connects to the Unix socket named by its argument and stays
 * until the other side closes the connection, or a minute has passed. */
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int main(int argc, char **argv) {
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    char byte;
    int fd;
    if (argc != 2 || strlen(argv[1]) >= sizeof address.sun_path) {
        return 2;
    }
    alarm(60);
    strcpy(address.sun_path, argv[1]);
    fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0 || connect(fd, (struct sockaddr *)&address, sizeof address) != 0) {
        return 1;
    }
    while (read(fd, &byte, 1) > 0) {
    }
    return 0;
}
