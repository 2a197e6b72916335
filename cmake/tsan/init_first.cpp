// Part of every program of clang's ThreadSanitizer builds. As a library, which tests need that stand in front of the C
// library's functions, the sanitizer is set up by its constructor, and that of libselinux runs earlier and calls what
// the sanitizer intercepts. Functions of this array run before all constructors.
extern "C" void __tsan_init();

__attribute__((section(".preinit_array"), used)) static void (*const initFirst)() = __tsan_init;
