#include "system/peers/Ending.h"

#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

#include "tarvo.h"

namespace tarvo_test {
namespace {

constexpr int CALLS_WITHOUT_MAIN = 10;
constexpr int PATIENCE_MS = 20000;
constexpr int UNANSWERED = 5;

bool IsAnswered(int fd) {
    char text[] = "still there";
    TarvoRequest request{0, text, sizeof(text)};
    TarvoResponse response{};
    const bool answered = TarvoTimedRPCSync(fd, &request, &response, PATIENCE_MS) == 0 && response.data != nullptr;
    DestroyResponse(&response);
    return answered;
}

sem_t mainGone;

// Has the end of this thread posted. Of a main thread that ends, the C library destroys these values, but no
// thread_local objects; and ThreadSanitizer cannot have it joined.
void PostWhenThisThreadEnds() {
    pthread_key_t key = 0;
    sem_init(&mainGone, 0, 0);
    pthread_key_create(&key, [](void *semaphore) { sem_post(static_cast<sem_t *>(semaphore)); });
    pthread_setspecific(key, &mainGone);
}

void ExitAfterMain(int fd) {
    sem_wait(&mainGone);
    for (int i = 0; i < CALLS_WITHOUT_MAIN; ++i) {
        if (!IsAnswered(fd)) {
            std::exit(UNANSWERED);
        }
    }
    std::exit(0);
}

} // namespace

std::string End(const Command &command) {
    const std::string how = command.Text("how");
    if (how == "exit") {
        std::exit(0);
    }
    if (how == "quick_exit") {
        std::quick_exit(0);
    }
    if (how == "_exit") {
        _exit(0);
    }
    if (how == "abort") {
        std::abort();
    }
    if (how == "pthread_exit") {
        PostWhenThisThreadEnds();
        std::thread(ExitAfterMain, command.Number("fd")).detach();
        pthread_exit(nullptr);
    }
    return "usage";
}

} // namespace tarvo_test
