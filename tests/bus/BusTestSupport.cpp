#include "BusTestSupport.h"

namespace bustest {

std::string veladPath()
{
    return VELAD_PATH;
}

std::string velaPath()
{
    return VELA_PATH;
}

int runVela(std::uint16_t port, const std::vector<std::string>& args, std::string* out, std::string* err,
            std::chrono::milliseconds timeout)
{
    std::vector<std::string> argv{velaPath(), "--port", std::to_string(port)};
    argv.insert(argv.end(), args.begin(), args.end());
    testsupport::ChildProcess p(argv);
    p.closeStdin();
    std::string o = p.readAll(timeout);
    std::string e = p.readAllStderr(std::chrono::milliseconds(2000));
    int status = p.wait(timeout);
    if (out) {
        *out = o;
    }
    if (err) {
        *err = e;
    }
    return status;
}

}  // namespace bustest
