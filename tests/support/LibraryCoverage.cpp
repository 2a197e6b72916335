// Part of the library in coverage builds only. Every module has counters of its own, which only code of that module can
// write out.
extern "C" void __gcov_dump(void);
extern "C" void TarvoDumpCoverage(void);

void TarvoDumpCoverage(void) { __gcov_dump(); }
