#include <tarvo_loop.h>

/* The same in C, and in short. */
int main(void) {
    TarvoLoop *loop = 0;
    if (TarvoLoopCreate(&loop) != 0 || TarvoLoopFd(loop) < 0 || TarvoLoopDispatch(loop, 1) != 0) {
        return 1;
    }
    return TarvoLoopDestroy(loop);
}
