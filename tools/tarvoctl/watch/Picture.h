// What a terminal shows of a text, painted over what it showed before.
#ifndef TARVO_TARVOCTL_PICTURE_H
#define TARVO_TARVOCTL_PICTURE_H

#include <cstddef>
#include <string>

namespace tarvoctl {

// The window of a terminal; 0 where its size is not known, and nothing is cut then.
struct WindowSize {
    std::size_t rows = 0;
    std::size_t columns = 0;
};
WindowSize WindowOf(int terminal);

// `text`, whose lines end with '\n', cut to the window: the first lines stay, and the last row tells how many more
// there are. Ends on the last row without a '\n', so that nothing scrolls.
std::string Picture(const std::string &text, const WindowSize &window);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_PICTURE_H
