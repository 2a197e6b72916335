#include <sys/mman.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>

#include "fifo/security_context.h"
#include "unit/fifo/FifoTest.h"

using namespace tarvo_test;

// No allocation larger than this succeeds in this program: a sanitizer's allocator has an option for that, and the C
// library's is stood in front of.
constexpr std::size_t LARGEST_ALLOCATION = 64 << 20;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SANITIZER_ALLOCATES
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SANITIZER_ALLOCATES
#endif
#endif

#ifdef SANITIZER_ALLOCATES
#define ALLOCATOR_OPTIONS "allocator_may_return_null=1:max_allocation_size_mb=64"
extern "C" const char *__asan_default_options();
extern "C" const char *__tsan_default_options();
extern "C" const char *__asan_default_options() { return ALLOCATOR_OPTIONS; }
extern "C" const char *__tsan_default_options() { return ALLOCATOR_OPTIONS; }
#else
extern "C" void *__libc_malloc(std::size_t size);
extern "C" void *malloc(std::size_t size) {
    if (size > LARGEST_ALLOCATION) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_malloc(size);
}
#endif

namespace {

using Conversion = int (*)(const char *, char **);

constexpr Conversion CONVERSIONS[] = {GetVornConBySelinuxCon, GetSelinuxConByVornCon};

// What `convert` makes of `con`; "(failed)" where it fails.
std::string Converted(Conversion convert, const char *con) {
    char *out = nullptr;
    if (convert(con, &out) != 0) {
        EXPECT_EQ(nullptr, out);
        return "(failed)";
    }
    const std::string text = out;
    AuthProxyFree(out);
    return text;
}

// Text of one byte value, of any length and outside the heap.
class MappedText {
public:
    explicit MappedText(std::size_t length)
        : size(length + 1),
          text(static_cast<char *>(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))) {
        std::memset(text, 'x', length);
    }
    ~MappedText() { munmap(text, size); }
    MappedText(const MappedText &) = delete;
    MappedText &operator=(const MappedText &) = delete;

    char *Get() const { return text; }

private:
    const std::size_t size;
    char *const text;
};

class ContextConversion : public FifoTest {};

TEST_F(ContextConversion, FullContextHasTheTypeInIt) {
    EXPECT_EQ("system_u:object_r:foo_t:s0", Converted(GetSelinuxConByVornCon, "foo_t"));
    EXPECT_EQ("system_u:object_r:a:b:s0", Converted(GetSelinuxConByVornCon, "a:b"));
}

TEST_F(ContextConversion, TypeIsTheThirdOfFourFields) {
    const struct {
        const char *con;
        const char *type;
    } rows[] = {
        {"system_u:object_r:foo_t:s0", "foo_t"},
        {"::a:b:c:d::", "c"},
        {"a::b:::c:d", "c"},
        {"a:b:c:d:", "c"},
        {"a:b:c", ""},
        {"a", ""},
        {":", ""},
        {"::::", ""},
        {"a:b:c:d:e", ""},
        {"system_u:object_r:foo_t:s0:c0.c1023", ""},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(row.type, Converted(GetVornConBySelinuxCon, row.con)) << row.con;
    }
}

TEST_F(ContextConversion, EveryTypeSurvivesTheWayThereAndBack) {
    for (const std::string type : {"t", "foo_t", "a.b-c d"}) {
        EXPECT_EQ(type, Converted(GetVornConBySelinuxCon, Converted(GetSelinuxConByVornCon, type.c_str()).c_str()));
    }
}

TEST_F(ContextConversion, EmptyInputFailsAndLeavesTheResultAlone) {
    for (const Conversion convert : CONVERSIONS) {
        for (const char *con : {static_cast<const char *>(nullptr), ""}) {
            char marker = 0;
            char *out = &marker;
            EXPECT_EQ(-1, convert(con, &out));
            EXPECT_EQ(&marker, out);
        }
    }
}

TEST_F(ContextConversion, WithoutMemoryTheResultIsNull) {
    constexpr std::size_t large = LARGEST_ALLOCATION + 100;
    const MappedText text(large);
    const MappedText context(large);
    char marker = 0;
    char *out = &marker;
    EXPECT_EQ(-1, GetSelinuxConByVornCon(text.Get(), &out));
    EXPECT_EQ(nullptr, out);

    // A type of that size in a full context.
    char *const fields = context.Get();
    fields[1] = fields[3] = fields[large - 2] = ':';
    out = &marker;
    EXPECT_EQ(-1, GetVornConBySelinuxCon(fields, &out));
    EXPECT_EQ(nullptr, out);
}

} // namespace
