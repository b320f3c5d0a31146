// engine_options: the settings a host chooses for one engine through
// ostrel_alg_setOption, in one record that the units needing them read.
//
// Options belong to the engine, not to the model: init keeps them and the
// model file does not record them. Every option has a fixed range and a
// default; a value outside the range is refused and changes nothing.
#pragma once

#include <cstdint>

#include "accurate/accurate_settings.h"

namespace ostrel {

// Option numbers and values, as the public header names them.
// (src/ostrel_alg_lib.cpp checks them against the header.)
inline constexpr int32_t kOptionProfile = 1;
inline constexpr int32_t kOptionAccurateCells = 2;
inline constexpr int32_t kOptionAccurateSizeSteps = 3;
inline constexpr int32_t kOptionAccurateOverlap = 4;
inline constexpr int32_t kOptionAccurateMinHeight = 6;
inline constexpr int32_t kOptionAccurateMaxHeight = 7;
inline constexpr int32_t kProfileClassic = 0;
inline constexpr int32_t kProfileAccurate = 1;

// One option: its number, name (for log lines), range (inclusive) and default.
// When least_nonzero is above 0, the values 1 .. least_nonzero - 1 are
// outside the range too (0 means "automatic" for such an option).
struct option_range {
    int32_t id;
    const char *name;
    int32_t minimum;
    int32_t maximum;
    int32_t default_value;
    int32_t least_nonzero;
};

// Every option the engine knows, in number order; *count receives their number.
const option_range *option_table(int32_t *count);
// The range and name of option `id`, or null when there is none.
const option_range *find_option(int32_t id);
// Whether value lies in the option's range.
bool within_range(const option_range &range, int32_t value);
// The least value of the range other than an automatic 0: with the maximum
// and the default, what the range is to a host (ostrel_alg_getOptionRange).
int32_t least_chosen_value(const option_range &range);

// The options that are accurate settings, and the field of the settings
// record each one holds, in number order.
struct accurate_option {
    int32_t id;
    int32_t accurate_settings::*field;
};
inline constexpr accurate_option kAccurateOptions[] = {
    {kOptionAccurateCells, &accurate_settings::object_cells},
    {kOptionAccurateSizeSteps, &accurate_settings::size_steps},
    {kOptionAccurateOverlap, &accurate_settings::suppression_overlap_percent},
    {kOptionAccurateMinHeight, &accurate_settings::min_height},
    {kOptionAccurateMaxHeight, &accurate_settings::max_height},
};

struct engine_options {
    int32_t profile = kProfileClassic;
    // The accurate profile's numbers; five of them are options.
    accurate_settings accurate;
    // The options the host has set (bit `id`): a model file's recorded
    // values replace only the others on import.
    uint32_t set_by_host = 0;

    bool is_accurate() const { return profile == kProfileAccurate; }
    bool host_set(int32_t id) const { return id >= 0 && id < 32 && (set_by_host >> id) & 1u; }

    // Why a value in the option's range cannot be taken with the others as
    // they are (a minimum height above the maximum), or null when it can.
    const char *conflict(int32_t id, int32_t value) const;

    // The value of a known option (0 for an unknown one: callers look the
    // option up first).
    int32_t get(int32_t id) const;
    // Stores a value the caller has checked against the option's range.
    void set(int32_t id, int32_t value);
};

}  // namespace ostrel
