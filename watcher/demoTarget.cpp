// A target for trying the watcher by hand: it fails a given number of times
// and then succeeds.
//
//     demo_target state-file [failures]
//
// Each run adds one to the counter kept in `state-file` (missing means 0) and
// exits 1 while the counter is at most `failures` (default 3).  The run after
// that exits 0 and removes the file, so the same command can be tried again.
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s state-file [failures]\n", argv[0]);
        return 2;
    }
    const char* state = argv[1];
    long failures = argc > 2 ? strtol(argv[2], nullptr, 10) : 3;

    long run = 0;
    if (FILE* in = fopen(state, "r")) {
        if (fscanf(in, "%ld", &run) != 1)
            run = 0;
        fclose(in);
    }
    run++;

    if (run > failures) {
        printf("demo_target[%d]: run %ld succeeds\n", int(getpid()), run);
        remove(state);
        return 0;
    }
    FILE* out = fopen(state, "w");
    if (!out) {
        perror(state);
        return 2;
    }
    fprintf(out, "%ld\n", run);
    fclose(out);
    printf("demo_target[%d]: run %ld of %ld fails\n", int(getpid()), run, failures + 1);
    return 1;
}
