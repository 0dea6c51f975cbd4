#pragma once

// One module's election record, as announced in its "item" telegram. All
// fields unsigned 32-bit; threshold in tenths.
//
// Election order: the greater module + prio wins (unsigned addition that wraps
// on overflow, deliberately unguarded), equal sums go to the greater uuid.
// threshold never takes part.
struct ModuleItem
{
    unsigned uuid = 0;
    unsigned module = 0;     // module priority
    unsigned prio = 0;       // time-source priority
    unsigned threshold = 0;  // tenths

    ModuleItem() = default;
    ModuleItem(unsigned u, unsigned m, unsigned p, unsigned t) : uuid(u), module(m), prio(p), threshold(t) {}

    // Keeps uuid, zeroes the announced values.
    void clear();
    // Not yet announced: module or prio is 0.
    bool isEmpty() const;

    bool operator<(const ModuleItem& other) const;
    bool operator>(const ModuleItem& other) const;
};
