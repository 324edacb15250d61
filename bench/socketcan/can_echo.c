/* can_echo: the floor for round trips over CAN_RAW, the least any transport
 * can do on a SocketCAN interface.
 *
 *   can_echo IF RX_ID TX_ID               echo: every frame on RX_ID goes back on TX_ID
 *   can_echo --client IF TX_ID RX_ID N    send on TX_ID, wait for RX_ID, N times;
 *                                         prints "p50_ns P99_ns"
 * Identifiers are 29-bit, in hexadecimal. The echo runs until killed.
 */
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

static int open_raw(const char *interface, canid_t rx_id) {
    int s = socket(PF_CAN, SOCK_RAW, CAN_RAW);
    if (s < 0) { perror("socket"); exit(1); }
    struct can_filter filter = { rx_id | CAN_EFF_FLAG, CAN_EFF_MASK | CAN_EFF_FLAG | CAN_RTR_FLAG };
    setsockopt(s, SOL_CAN_RAW, CAN_RAW_FILTER, &filter, sizeof filter);
    struct sockaddr_can address = { .can_family = AF_CAN, .can_ifindex = (int)if_nametoindex(interface) };
    if (address.can_ifindex == 0 || bind(s, (struct sockaddr *)&address, sizeof address) < 0) {
        fprintf(stderr, "can_echo: cannot bind to %s\n", interface);
        exit(1);
    }
    return s;
}

static long long now_ns(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000000000LL + t.tv_nsec;
}

static int by_value(const void *a, const void *b) {
    long long x = *(const long long *)a, y = *(const long long *)b;
    return (x > y) - (x < y);
}

int main(int argc, char **argv) {
    if (argc == 4) {
        canid_t rx = (canid_t)strtoul(argv[2], NULL, 16), tx = (canid_t)strtoul(argv[3], NULL, 16);
        int s = open_raw(argv[1], rx);
        struct can_frame frame;
        while (read(s, &frame, sizeof frame) == (ssize_t)sizeof frame) {
            frame.can_id = tx | CAN_EFF_FLAG;
            if (write(s, &frame, sizeof frame) != (ssize_t)sizeof frame) perror("write");
        }
        return 1;
    }
    if (argc == 6 && strcmp(argv[1], "--client") == 0) {
        canid_t tx = (canid_t)strtoul(argv[3], NULL, 16), rx = (canid_t)strtoul(argv[4], NULL, 16);
        int n = atoi(argv[5]);
        if (n <= 0) return 2;
        int s = open_raw(argv[2], rx);
        long long *times = malloc(sizeof(long long) * (size_t)n);
        struct can_frame frame = { .can_id = tx | CAN_EFF_FLAG, .len = 2, .data = { 0x01, 0x00 } };
        for (int i = 0; i < n; ++i) {
            struct can_frame answer;
            long long start = now_ns();
            if (write(s, &frame, sizeof frame) != (ssize_t)sizeof frame) { perror("write"); return 1; }
            if (read(s, &answer, sizeof answer) != (ssize_t)sizeof answer) { perror("read"); return 1; }
            times[i] = now_ns() - start;
        }
        qsort(times, (size_t)n, sizeof times[0], by_value);
        printf("%lld %lld\n", times[n / 2], times[(n * 99) / 100]);
        free(times);
        return 0;
    }
    fprintf(stderr, "usage: can_echo IF RX_ID TX_ID | can_echo --client IF TX_ID RX_ID N\n");
    return 2;
}
