#pragma once

#include <map>
#include <string>

namespace vela {
class PeerAsync;
}

namespace orv::tsd {

// The process-wide error text table (code -> text), filled before main.
std::map<int, std::string>& errorTexts();

// The errors active now, each published as the bus state "sync/errors/<code>"
// with {"error", "txt", "info"}. Raising an active code or clearing an
// inactive one does nothing.
class TsdErrors
{
public:
    explicit TsdErrors(vela::PeerAsync& peer);
    virtual ~TsdErrors();
    TsdErrors(const TsdErrors&) = delete;
    TsdErrors& operator=(const TsdErrors&) = delete;

    void add(int code, const std::string& info);
    void add(int code, const std::string& info, const std::string& scope, const std::string& function,
             int line);
    void remove(int code);

    const std::map<int, std::string>& active() const { return m_active; }

private:
    std::map<int, std::string> m_active;  // code -> bus path
    vela::PeerAsync& m_peer;
};

}  // namespace orv::tsd
