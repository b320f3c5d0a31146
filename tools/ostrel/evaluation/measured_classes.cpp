#include "evaluation/measured_classes.h"

#include <algorithm>

#include "cli/tool_error.h"

namespace ostrel_tool {

std::vector<ClassGroup> measured_classes(const std::vector<std::string> &asked, const std::vector<std::string> &named,
                                         const std::string &owner) {
    std::vector<ClassGroup> groups = class_groups_of(asked);
    if (groups.empty()) {
        for (const std::string &name : named) {
            groups.push_back(ClassGroup{{name}});
        }
        return groups;
    }
    for (const ClassGroup &group : groups) {
        const bool known = std::any_of(named.begin(), named.end(),
                                       [&](const std::string &n) { return group.contains(n) || n == group.display(); });
        if (!known) {
            std::string listed;
            for (const std::string &n : named) listed += (listed.empty() ? "" : ", ") + n;
            throw usage_error(owner + " has no class '" + group.display() + "' (its classes: " + listed + ")");
        }
    }
    return groups;
}

std::vector<std::string> in_label_order(const std::vector<std::string> &named,
                                        const std::vector<std::string> &label_classes) {
    auto is_named = [&](const std::string &n) { return std::find(named.begin(), named.end(), n) != named.end(); };
    std::vector<std::string> ordered;
    for (const std::string &n : label_classes) {
        if (is_named(n) && std::find(ordered.begin(), ordered.end(), n) == ordered.end()) {
            ordered.push_back(n);
        }
    }
    for (const std::string &n : named) {
        if (std::find(ordered.begin(), ordered.end(), n) == ordered.end()) {
            ordered.push_back(n);
        }
    }
    return ordered;
}

}  // namespace ostrel_tool
