#include "MonitorEvent.h"

namespace tsdmon {

const char* sideName(interface_t side)
{
    return side == orv::tsd::FRONT_FW ? "front" : "rear";
}

const char* toString(Malformation malformation)
{
    switch (malformation) {
        case Malformation::Empty:
            return "empty";
        case Malformation::BadFrame:
            return "bad-frame";
        case Malformation::Unknown:
            return "unknown";
        case Malformation::WrongSide:
            return "wrong-side";
    }
    return "unknown";
}

const char* explain(Malformation malformation)
{
    switch (malformation) {
        case Malformation::Empty:
            return "empty datagram, ignored by the daemons";
        case Malformation::BadFrame:
            return "not framed by <sync> on both ends, dropped by the daemons";
        case Malformation::Unknown:
            return "unknown command or field count, dropped by the daemons";
        case Malformation::WrongSide:
            return "telegram of the other side's form, the daemons raise error -3";
    }
    return "";
}

}  // namespace tsdmon
