// How far apart the machine's first two processors are: two threads, one pinned to each,
// pass one cache line back and forth, and the median time of a round trip is printed in
// nanoseconds (0 when there is only one processor).
//
//   suite_pingpong [ROUND_TRIPS]
//
// A virtual machine's processors can sit on one core complex of the host (a round trip
// of some 50 ns here) or on two (some 340 ns), and the host moves them while it runs.
// Work that hands memory from one thread to the other takes far longer in the second
// case, so the suite probes this before each timed run to show which runs were which.
#define _GNU_SOURCE
#include <pthread.h>
#include <sched.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

enum { kBatches = 9 };

static _Alignas(64) atomic_long ball;
static long round_trips = 2000;

static void pin(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    pthread_setaffinity_np(pthread_self(), sizeof set, &set);
}

// Returns every odd value as the next even one, until the last batch is done.
static void* answer(void* cpu) {
    pin((int)(long)cpu);
    const long last = 2 * round_trips * kBatches;
    for (long expected = 1; expected < last; expected += 2) {
        while (atomic_load_explicit(&ball, memory_order_acquire) != expected) {
        }
        atomic_store_explicit(&ball, expected + 1, memory_order_release);
    }
    return NULL;
}

static double now_ns(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec * 1e9 + (double)t.tv_nsec;
}

static int by_value(const void* a, const void* b) {
    const double x = *(const double*)a, y = *(const double*)b;
    return (x > y) - (x < y);
}

int main(int argc, char** argv) {
    if (argc > 1) round_trips = atol(argv[1]);
    if (round_trips < 1) {
        fprintf(stderr, "usage: %s [ROUND_TRIPS]\n", argv[0]);
        return 2;
    }
    // The first two processors this process may use.
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) {
        perror("sched_getaffinity");
        return 1;
    }
    int cpus[2], found = 0;
    for (int cpu = 0; cpu < CPU_SETSIZE && found < 2; ++cpu) {
        if (CPU_ISSET(cpu, &allowed)) cpus[found++] = cpu;
    }
    if (found < 2) {
        printf("0\n");
        return 0;
    }
    pthread_t other;
    if (pthread_create(&other, NULL, answer, (void*)(long)cpus[1]) != 0) {
        perror("pthread_create");
        return 1;
    }
    pin(cpus[0]);
    double batches[kBatches];
    long value = 0;
    for (int b = 0; b < kBatches; ++b) {
        const double start = now_ns();
        for (long i = 0; i < round_trips; ++i) {
            atomic_store_explicit(&ball, ++value, memory_order_release);
            ++value;
            while (atomic_load_explicit(&ball, memory_order_acquire) != value) {
            }
        }
        batches[b] = (now_ns() - start) / (double)round_trips;
    }
    pthread_join(other, NULL);
    qsort(batches, kBatches, sizeof batches[0], by_value);
    printf("%.0f\n", batches[kBatches / 2]);
    return 0;
}
