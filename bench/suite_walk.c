// The lower bound for analysing a pair of trees: a bare openat + fstatat walk that keeps
// nothing. `suite_walk A B` walks A then B on one thread; `suite_walk --threads A B`
// walks each tree on its own thread at the same time. Prints the number of items seen.
// bench/suite compiles it with cc on the fly.
#define _GNU_SOURCE
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

struct job {
    const char* root;
    long items;
};

static long walk(int dirfd) {
    DIR* dir = fdopendir(dirfd);
    if (!dir) {
        perror("fdopendir");
        close(dirfd);
        return 0;
    }
    long items = 0;
    struct dirent* entry;
    while ((entry = readdir(dir))) {
        const char* name = entry->d_name;
        if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0))) continue;
        struct stat st;
        // Every item is stat'ed, as a synchroniser must for size and time.
        if (fstatat(dirfd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            perror(name);
            continue;
        }
        ++items;
        if (S_ISDIR(st.st_mode)) {
            int child = openat(dirfd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (child >= 0) items += walk(child);
            else perror(name);
        }
    }
    closedir(dir);
    return items;
}

static void* walk_job(void* arg) {
    struct job* job = arg;
    int fd = open(job->root, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        perror(job->root);
        exit(1);
    }
    job->items = walk(fd);
    return NULL;
}

int main(int argc, char** argv) {
    int threads = argc > 1 && strcmp(argv[1], "--threads") == 0;
    int first = 1 + threads, count = argc - first;
    if (count < 1) {
        fprintf(stderr, "usage: %s [--threads] DIR...\n", argv[0]);
        return 2;
    }
    struct job* jobs = calloc((size_t)count, sizeof *jobs);
    pthread_t* ids = calloc((size_t)count, sizeof *ids);
    for (int i = 0; i < count; ++i) {
        jobs[i].root = argv[first + i];
        if (threads) pthread_create(&ids[i], NULL, walk_job, &jobs[i]);
        else walk_job(&jobs[i]);
    }
    long total = 0;
    for (int i = 0; i < count; ++i) {
        if (threads) pthread_join(ids[i], NULL);
        total += jobs[i].items;
    }
    printf("%ld\n", total);
    return 0;
}
