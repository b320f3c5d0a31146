// The pictures an evaluation leaves out, each with its reason. A model
// scored on the picture it was trained on looks better than it is, so eval
// leaves training pictures out. Today's model files do not record their
// training pictures, so the user names them (--skip PICTURE); a rule can be
// added for whatever can tell a training picture by itself (a model that
// records its pictures' fingerprints, say): add_rule takes any predicate.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "labels/label_set.h"

namespace ostrel_tool {

class LeftOutPictures {
public:
    // A rule: the reason a picture is left out, or nothing.
    using Rule = std::function<std::optional<std::string>(const LabelledPicture &picture)>;

    // Leaves out the pictures of the set that are the file path (however it
    // is spelt) or, for a bare file name, have that name. Throws a usage
    // error when no picture of the set is meant, so that a misspelt name
    // never lets a training picture count.
    void add_skip(const std::string &path, const LabelSet &set);
    void add_rule(Rule rule) { rules_.push_back(std::move(rule)); }

    std::optional<std::string> reason(const LabelledPicture &picture) const;

private:
    std::vector<Rule> rules_;
};

}  // namespace ostrel_tool
