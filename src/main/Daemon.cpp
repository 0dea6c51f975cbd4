#include "main/Daemon.h"

#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <iostream>
#include <optional>

#include <orv/communication/Netadapter.h>
#include <orv/exception/exception.h>
#include <orv/sys/PidFile.h>
#include <orv/sys/Timer.h>
#include <vela/PeerAsync.h>

#include "config/Config.h"
#include "config/ConfigParams.h"
#include "errors/TsdErrors.h"
#include "main/Debug.h"
#include "protocol/CheckResponse.h"
#include "protocol/CommandProcessor.h"
#include "sync/TimeSyncManagement.h"

namespace orv::tsd {

// Declaration order is construction order: the loop and the adapter list
// must exist before the receivers that use them.
orv::sys::EventLoop eventloop;
orv::communication::NetadapterList adapterList;
orv::communication::MulticastServer receiverRear(adapterList, eventloop);
orv::communication::MulticastServer receiverFront(adapterList, eventloop);

namespace {

const char kBusAddress[] = "127.0.0.1";
constexpr unsigned kBusPort = 11122;
// A datagram can never be larger; a smaller buffer would drop valid ones.
constexpr unsigned kReceiveBufferSize = 65536;

void printUsage()
{
    std::cout << "-d for enable DEBUG SYSLOG" << '\n'
              << "or use signal SIGUSR1 (-10) for enable DEBUG SYSLOG" << '\n'
              << "use signal SIGUSR2 (-12) for disable DEBUG SYSLOG" << std::endl;
}

std::string baseName(const std::string& path)
{
    const std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Formats into a caller's buffer without allocating: runs in signal context.
std::size_t formatSignalEcho(int signalNumber, char* out, std::size_t size)
{
    static const char kPrefix[] = "SIGNAL NR. : ";
    std::size_t length = 0;
    for (const char* c = kPrefix; *c != '\0' && length < size; ++c)
        out[length++] = *c;

    char digits[12];
    std::size_t count = 0;
    unsigned magnitude =
        signalNumber < 0 ? 0u - static_cast<unsigned>(signalNumber) : static_cast<unsigned>(signalNumber);
    do {
        digits[count++] = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0 && count < sizeof digits);
    if (signalNumber < 0 && length < size)
        out[length++] = '-';
    while (count > 0 && length < size)
        out[length++] = digits[--count];
    if (length < size)
        out[length++] = '\n';
    return length;
}

}  // namespace

int multicastReceiveHandler(orv::communication::MulticastServer& server, interface_t side,
                            CheckResponse& check, TimeSyncManagement& tsm)
{
    orv::communication::Netadapter from;
    char buffer[kReceiveBufferSize];
    int interfaceIndex = 0;
    const int received = server.receiveTelegram(buffer, sizeof buffer, from, interfaceIndex);
    if (received > 0)
        CommandProcessor::processReceived(buffer, received, &server, from, side, check, tsm);
    return received;
}

void netLinkEventHandler(orv::communication::Netlink::event_t event, unsigned int interfaceIndex,
                         const std::string& address)
{
    using orv::communication::Netlink;

    bool rear = false;
    try {
        const orv::communication::Netadapter adapter = adapterList.getAdapterByInterfaceIndex(interfaceIndex);
        const std::string name = adapter.getName();
        // Only the FireWire ports carry telegrams; Ethernet comes and goes
        // without concern to the election.
        if (!adapter.isFirewireAdapter())
            return;
        rear = name == Config::instance().getRearInterfaceName();
        if (rear)
            syslog(LOG_DEBUG, "REAR_INTERFACE %s ip: %s ", name.c_str(), address.c_str());
        else
            syslog(LOG_DEBUG, "PRONT_INTERFACE %s ip: %s ", name.c_str(), address.c_str());
    } catch (...) {
        // Typically an index that vanished before its event got here.
        syslog(LOG_WARNING, "error in netLinkEventHandler event = %i", static_cast<int>(event));
        return;
    }

    orv::communication::MulticastServer& receiver = rear ? receiverRear : receiverFront;
    const int index = static_cast<int>(interfaceIndex);
    switch (event) {
        case Netlink::LINK_ADDED:
            syslog(LOG_DEBUG, "LINK_ADDED ");
            receiver.addInterface(index);
            break;
        case Netlink::LINK_REMOVED:
            syslog(LOG_DEBUG, "LINK_REMOVED");
            receiver.dropInterface(index);
            break;
        case Netlink::ADDRESS_ADDED:
            syslog(LOG_DEBUG, "ADDRESS_ADDED ");
            receiver.addInterface(index);
            break;
        case Netlink::ADDRESS_REMOVED:
            syslog(LOG_DEBUG, "ADDRESS_REMOVED");
            receiver.dropInterface(index);
            break;
        case Netlink::COMPLETE:
            syslog(LOG_DEBUG, "COMPLETE");
            break;
    }
}

void signalHandler(int signalNumber)
{
    // Only async-signal-safe calls here: write(2), the loop's stop and a
    // one-byte flag.
    char echo[32];
    const std::size_t length = formatSignalEcho(signalNumber, echo, sizeof echo);
    ssize_t written = ::write(STDOUT_FILENO, echo, length);
    (void)written;

    switch (signalNumber) {
        case SIGINT:
        case SIGTERM:
            eventloop.stop();
            break;
        case SIGUSR1:
            setDebugModeFlag(true);
            break;
        case SIGUSR2:
            setDebugModeFlag(false);
            break;
        default:
            break;
    }
}

void notifyReadyFromLoop(orv::sys::Timer& timer)
{
    timer.set(std::chrono::milliseconds(0), false, [](bool fired) {
        // Unsetting NOTIFY_SOCKET keeps it from the time-service scripts and
        // the daemons they start: their own notifications would only be
        // refused by the service manager, which listens to tsd alone.
        if (fired)
            sd_notify(1, "READY=1");
    });
}

void installSignalHandler(int signalNumber)
{
    struct sigaction action = {};
    action.sa_handler = signalHandler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(signalNumber, &action, nullptr);
}

int tsdMain(int argc, char** argv)
{
    using namespace std::placeholders;

    opterr = 0;
    int option = 0;
    while ((option = getopt(argc, argv, "dh")) != -1) {
        if (option == 'd') {
            setDebugModeFlag(true);
        } else {
            printUsage();
            return 0;
        }
    }

    installSignalHandler(SIGINT);
    installSignalHandler(SIGTERM);
    installSignalHandler(SIGUSR2);
    installSignalHandler(SIGUSR1);

    const std::string programPath = argc > 0 && argv[0] != nullptr ? argv[0] : "tsd";
    // Two daemons on one module would answer every start twice and fight
    // over the time services: a live holder of the PID file refuses this one.
    std::optional<orv::sys::PidFile> pidFile;
    try {
        pidFile.emplace(programPath);
    } catch (const orv::exception::exception& e) {
        std::cerr << e.what() << std::endl;
        syslog(LOG_ERR, "%s", e.what());
        return 1;
    }

    // Declaration order is construction order; teardown runs in reverse, so
    // that nothing outlives what it refers to.
    vela::PeerAsync peer(eventloop, kBusAddress, kBusPort, "", false);
    peer.configAsync(baseName(programPath), false, {});
    TsdErrors errors(peer);
    orv::communication::Netlink netlink(adapterList, eventloop);
    CheckResponse rearCheck(REAR_FW, eventloop, receiverRear, errors);
    CheckResponse frontCheck(FRONT_FW, eventloop, receiverFront, errors);
    TimeSyncManagement tsm(receiverRear, receiverFront, eventloop, peer);
    std::string address;

    const ConfigParams& params = ConfigParams::instance();

    address = Config::instance().getInterfaceAddress(REAR_FW);
    if (address.empty()) {
        syslog(LOG_ERR, "back side firewire not available!");
        // Keeps a supervisor from restarting the daemon in a tight loop while
        // the rear port is still missing.
        sleep(1);
        return -1;
    }
    if (receiverRear.start(
            params.getMulticastAddress(), params.getMulticastPort(REAR_FW),
            std::bind(multicastReceiveHandler, _1, REAR_FW, std::ref(rearCheck), std::ref(tsm))) < 0) {
        syslog(LOG_ERR, "could not start back side multicast receiver!");
        return -1;
    }
    receiverRear.setMulticastLoop(true);
    if (receiverRear.addInterface(address) < 0) {
        syslog(LOG_ERR, "could not add interface to back side multicast receiver!");
        return -1;
    }

    address = Config::instance().getInterfaceAddress(FRONT_FW);
    if (address.empty()) {
        if (Config::instance().IsKPModule())
            syslog(LOG_ERR, "front side interface not available!");
    } else {
        if (receiverFront.start(
                params.getMulticastAddress(), params.getMulticastPort(FRONT_FW),
                std::bind(multicastReceiveHandler, _1, FRONT_FW, std::ref(frontCheck), std::ref(tsm))) < 0)
            syslog(LOG_ERR, "could not start front side multicast receiver!");
        receiverFront.setMulticastLoop(true);
        // The front address joins the rear receiver; the front receiver gets
        // its membership from the link events instead.
        if (receiverRear.addInterface(address) < 0)
            syslog(LOG_ERR, "could not add interface to front side multicast receiver!");
    }

    netlink.start(std::bind(netLinkEventHandler, _1, _2, _3));
    orv::sys::Timer readiness(eventloop);
    notifyReadyFromLoop(readiness);
    eventloop.execute();
    return 0;
}

}  // namespace orv::tsd
