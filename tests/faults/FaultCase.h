// One call of an exported function with one fault, in a process of its own that has not used the library before.
#ifndef TARVO_FAULTS_FAULTCASE_H
#define TARVO_FAULTS_FAULTCASE_H

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/Interpose.h"

namespace tarvo_test {

// What surrounds one call: made before it, in the process of the case. Its destruction ends what it has begun.
class Scene {
public:
    // The process has a name of its own, so that finding one takes no system calls.
    Scene() { setenv("PROC_NAME", "faults", 1); }
    virtual ~Scene() = default;
    Scene(const Scene &) = delete;
    Scene &operator=(const Scene &) = delete;

    // The call under test.
    virtual int Act() = 0;
    // That the library works after `result`: the same call again, and traffic.
    virtual void GoOn(int result) = 0;
};

enum class Returns {
    Handle,
    Code,
    Nothing, // no result, or one that is no error code
};

struct Function {
    std::string name; // and, in words, what is special about this use of it
    Returns returns;
    std::function<std::unique_ptr<Scene>()> scene;
};

// Which thread the fault is for.
enum class Whose {
    Callers,
    Behind, // any thread but the caller's
};

struct Fault {
    Call call = Call::Count; // Count: none
    int error = 0;
    unsigned nth = 1;
    Whose whose = Whose::Callers;
    unsigned allocation = 0; // the allocation to fail instead, from 1
};

struct Outcomes {
    std::string problem; // not empty: what went wrong, of which the process has printed more
    bool hit = false;
    int result = 0;
    bool fileStays = false;
};

// Runs the case: the scene, the fault, the call, and then either GoOn or nothing, as a caller who gives up; at the end
// all communication ends. It is a problem when the process crashes or hangs, when GoOn fails, or when a descriptor, a
// thread or (unless the fault is one of unlink or access) a file is left. The caller reports it, but not before the
// last case: processes forked from one that has seen a failure could not tell their own.
Outcomes RunCase(const Function &function, const Fault &fault, bool goOn);

// The same with a resource missing: `take` is called just before the call and `giveBack` after it. `prepare` is called
// at the beginning; when it returns false, the case cannot be run, and `hit` is false.
struct Resource {
    std::function<bool()> prepare;
    std::function<void()> take;
    std::function<void()> giveBack;
};
Outcomes RunWithout(const Function &function, const Resource &resource);

// Which of `calls` the caller's thread makes in one run without a fault.
std::vector<Call> CallsOf(const Function &function, const std::vector<Call> &calls, Whose whose = Whose::Callers);

} // namespace tarvo_test

#endif // TARVO_FAULTS_FAULTCASE_H
