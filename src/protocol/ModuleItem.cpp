#include "protocol/ModuleItem.h"

// The whole election rests on this comparison; it stays free of logging and
// bus calls so that it can be checked from a table of cases.

void ModuleItem::clear()
{
    module = 0;
    prio = 0;
    threshold = 0;
}

bool ModuleItem::isEmpty() const
{
    return module == 0 || prio == 0;
}

bool ModuleItem::operator<(const ModuleItem& other) const
{
    // Unsigned sums wrap on overflow; modules rely on the sum being formed the
    // same way everywhere, so no guard is added here.
    const unsigned mine = module + prio;
    const unsigned theirs = other.module + other.prio;
    if (mine != theirs)
        return mine < theirs;
    return uuid < other.uuid;
}

bool ModuleItem::operator>(const ModuleItem& other) const
{
    return other < *this;
}
