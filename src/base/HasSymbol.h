#ifndef TARVO_BASE_HASSYMBOL_H
#define TARVO_BASE_HASSYMBOL_H

// Before a member function that is defined in its class, so that calls of it are inlined, and that programs find in the
// library all the same: compilers leave out an inline function of which every call is inlined.
#define HAS_SYMBOL __attribute__((used))

#endif // TARVO_BASE_HASSYMBOL_H
