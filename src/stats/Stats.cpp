#include "stats/Stats.h"

__thread char Stats::mark;
