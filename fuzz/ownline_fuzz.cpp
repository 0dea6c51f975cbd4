// Feeds one line of `vela own` input (what an operator or a script pipes into
// the client) to its parser. A line is either refused with a reason, or taken
// as nothing to do, or as an add, change or remove of a path without blanks;
// written back as "OP PATH VALUE" it reads the same again.

#include <cstddef>
#include <cstdint>
#include <string>

#include "JsonText.h"
#include "OwnLine.h"
#include "support/Check.h"

using vela::cli::OwnLine;

namespace {

const char* opWord(OwnLine::Op op)
{
    switch (op) {
        case OwnLine::Op::kAdd:
            return "add";
        case OwnLine::Op::kChange:
            return "change";
        case OwnLine::Op::kRemove:
            return "remove";
        case OwnLine::Op::kNone:
            break;
    }
    return "";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string line(reinterpret_cast<const char*>(data), size);
    OwnLine parsed;
    std::string error;
    if (!vela::cli::parseOwnLine(line, parsed, error)) {
        FUZZ_CHECK(!error.empty());
        return 0;
    }
    FUZZ_CHECK(error.empty());
    if (parsed.op == OwnLine::Op::kNone) {
        FUZZ_CHECK(parsed.path.empty() && parsed.value.isNull());
        return 0;
    }
    FUZZ_CHECK(!parsed.path.empty());
    FUZZ_CHECK(parsed.path.find_first_of(" \t\r") == std::string::npos);
    if (parsed.op == OwnLine::Op::kRemove)
        FUZZ_CHECK(parsed.value.isNull());

    std::string again = std::string(opWord(parsed.op)) + " " + parsed.path;
    if (parsed.op != OwnLine::Op::kRemove)
        again += " " + vela::toCompact(parsed.value);
    OwnLine reparsed;
    FUZZ_CHECK(vela::cli::parseOwnLine(again, reparsed, error));
    FUZZ_CHECK(reparsed.op == parsed.op && reparsed.path == parsed.path && reparsed.value == parsed.value);
    return 0;
}
