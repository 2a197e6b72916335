#include "top/View.h"

#include <fmt/format.h>

#include <array>

namespace tarvoctl {
namespace {

struct SortKey {
    char key;
    const char *name;
};

constexpr std::array<SortKey, 9> SORT_KEYS = {{{'w', "trouble"},
                                               {'b', "busy"},
                                               {'r', "refused"},
                                               {'d', "dropped"},
                                               {'t', "timeouts"},
                                               {'u', "queued"},
                                               {'l', "call"},
                                               {'c', "callback"},
                                               {'n', "name"}}};

constexpr char ESCAPE = '\033';
constexpr char DELETE = '\177';
constexpr char BACKSPACE = '\b';

void Edit(View &view, char key) {
    if (key == '\n' || key == '\r') {
        // A part of a name will do.
        const bool pattern = view.typed.find_first_of("*?[") != std::string::npos;
        view.filter = view.typed.empty() || pattern ? view.typed : "*" + view.typed + "*";
        view.editing = false;
    } else if (key == ESCAPE) {
        view.editing = false;
    } else if (key == DELETE || key == BACKSPACE) {
        view.typed = view.typed.substr(0, view.typed.empty() ? 0 : view.typed.size() - 1);
    } else if (key >= ' ' && key < DELETE) {
        view.typed += key;
    }
}

void Obey(View &view, char key) {
    for (const SortKey &sort : SORT_KEYS) {
        if (sort.key == key) {
            view.sort = sort.name;
            return;
        }
    }
    switch (key) {
    case 'q':
        view.over = true;
        break;
    case '/':
        view.editing = true;
        view.typed.clear();
        break;
    case ESCAPE:
        view.filter.clear();
        break;
    case 'p':
    case ' ':
        view.paused = !view.paused;
        break;
    case '?':
    case 'h':
        view.help = !view.help;
        break;
    default:
        break;
    }
}

} // namespace

void Press(View &view, const std::string &keys) {
    // A key that sends several bytes, such as an arrow, is none of ours, and no Escape either.
    if (keys.size() > 1 && keys[0] == ESCAPE) {
        return;
    }
    for (const char key : keys) {
        view.editing ? Edit(view, key) : Obey(view, key);
    }
}

std::string ViewText(const View &view) {
    if (view.editing) {
        return fmt::format("filter: {}_   (Enter takes it, Escape leaves it)\n", view.typed);
    }
    std::string text = fmt::format("by {}{}{}; ? helps, q ends\n", view.sort,
                                   view.filter.empty() ? "" : ", only " + view.filter, view.paused ? ", paused" : "");
    if (view.help) {
        text += "order: w trouble  b busy  r refused  d dropped  t timeouts  u queued  l call  c callback  n name\n"
                "/ filter by a name or a part of one  Escape all again  p or space pause  q quit\n";
    }
    return text;
}

} // namespace tarvoctl
