// What a user of the live view has chosen, key by key.
#ifndef TARVO_TARVOCTL_VIEW_H
#define TARVO_TARVOCTL_VIEW_H

#include <string>

namespace tarvoctl {

struct View {
    std::string sort;
    std::string filter; // a pattern
    bool editing = false;
    std::string typed; // of the filter that is being typed
    bool paused = false;
    bool help = false;
    bool over = false;
};

// Does what the keys ask for.
void Press(View &view, const std::string &keys);

// The order, the filter and the keys: what stands above the table.
std::string ViewText(const View &view);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_VIEW_H
