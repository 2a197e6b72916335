#include <tarvo_stats.h>

static int Count(void *context, int descriptor, const char *name) {
    TarvoStatsFile *file = 0;
    TarvoStatsReading reading = {0};
    int *processes = context;
    if (TarvoStatsOpenAt(descriptor, name, &file) == 0 && TarvoStatsRead(file, &reading) == 0) {
        *processes += (int)reading.alive;
    }
    TarvoStatsFree(&reading);
    TarvoStatsClose(file);
    return 0;
}

/* Where nothing is counted there is no directory, and no error. */
int main(void) {
    int processes = 0;
    TarvoStatsEach(TARVO_STATS_DIRECTORY, Count, &processes);
    return TarvoStatsBucketEnd(0) == 896 ? 0 : 1;
}
