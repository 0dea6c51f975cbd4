#pragma once

// What the daemon's code did to the world around it while one fuzz input ran.
// The stand-ins that replace the bus peer, the multicast sockets, the shell
// and the time services' files in the fuzz targets write here instead of
// reaching the bus, the network, the file system or a script, so that a
// target can check afterwards what the code under test did. Single-threaded,
// like the daemon.

#include <json/value.h>
#include <vela/PeerAsync.h>

#include <map>
#include <string>
#include <vector>

namespace fuzzsupport {

struct OwnState
{
    Json::Value value;
    vela::SetCallback onSet;
};

struct Fetch
{
    vela::matcher_t matcher;
    vela::FetchCallback onNotify;
};

struct Published
{
    std::string path;
    Json::Value value;
};

struct SentTelegram
{
    std::string text;
    bool byAddress = false;      // sendOverInterfaceByAddress (a request to the side)
    std::string address;         // the interface address it went out of, when byAddress
    unsigned interfaceIndex = 0;  // the adapter it went out of, otherwise
    unsigned ttl = 0;
};

struct WrittenFile
{
    std::string path;
    std::string text;
};

struct Record
{
    // What the peer owns and follows now: survives clearEvents().
    std::map<std::string, OwnState> states;
    std::map<int, Fetch> fetches;
    int nextFetchId = 1;

    // What happened since the last clearEvents().
    std::vector<Published> published;  // every value given to add and notify, in order
    std::vector<std::string> removed;  // paths of removeStateAsync
    unsigned duplicateAdds = 0;        // adds of a path the peer already owned
    unsigned callbacksPassed = 0;      // response callbacks handed to the peer
    std::vector<std::string> commands;
    std::vector<WrittenFile> files;
    std::vector<SentTelegram> sent;
    std::vector<long> sleepsMs;

    // How the stand-ins answer: the status every command returns, whether
    // the service files can be written.
    int commandStatus = 0;
    bool filesWritable = true;

    void clearEvents();
    // Everything, for a fresh peer.
    void clearAll();
};

Record& record();

}  // namespace fuzzsupport
