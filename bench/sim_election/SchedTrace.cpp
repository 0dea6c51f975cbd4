#include "SchedTrace.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace simbench {

namespace {

const std::string kTracing = "/sys/kernel/tracing";

bool put(const std::string& path, const std::string& value)
{
    std::ofstream out(path);
    out << value;
    out.flush();
    return static_cast<bool>(out);
}

std::string slurp(const std::string& path)
{
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// The number after key in line (e.g. " prev_pid="), -1 when absent.
long field(const std::string& line, const char* key, std::string::size_type from = 0)
{
    const auto at = line.find(key, from);
    return at == std::string::npos ? -1 : std::strtol(line.c_str() + at + std::strlen(key), nullptr, 10);
}

double seconds(Clock::time_point t)
{
    return std::chrono::duration<double>(t.time_since_epoch()).count();
}

}  // namespace

SchedTrace::~SchedTrace()
{
    if (!m_dir.empty()) {
        put(m_dir + "/tracing_on", "0");
        ::rmdir(m_dir.c_str());
    }
}

bool SchedTrace::start(std::string& error)
{
    m_intervals.clear();
    m_lost = 0;
    if (m_dir.empty()) {
        const std::string dir = kTracing + "/instances/sim_election_bench-" + std::to_string(::getpid());
        if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
            error = "no tracing instance at " + dir + ": " + std::strerror(errno);
            return false;
        }
        m_dir = dir;
        // Monotonic, as steady_clock; room for a long election of 64 daemons.
        if (!put(m_dir + "/trace_clock", "mono") || !put(m_dir + "/buffer_size_kb", "65536") ||
            !put(m_dir + "/events/sched/sched_switch/filter", "prev_comm == \"tsd\" || next_comm == \"tsd\"") ||
            !put(m_dir + "/events/sched/sched_wakeup/filter", "comm == \"tsd\"") ||
            !put(m_dir + "/events/sched/sched_process_fork/filter", "parent_comm == \"tsd\"") ||
            !put(m_dir + "/events/sched/sched_switch/enable", "1") ||
            !put(m_dir + "/events/sched/sched_wakeup/enable", "1") ||
            !put(m_dir + "/events/sched/sched_process_fork/enable", "1") ||
            !put(m_dir + "/events/sched/sched_process_exit/enable", "1")) {
            error = "cannot set up the scheduler events in " + m_dir;
            return false;
        }
    }
    put(m_dir + "/trace", "");  // empties the buffer
    return put(m_dir + "/tracing_on", "1");
}

void SchedTrace::stop()
{
    if (m_dir.empty()) {
        return;
    }
    put(m_dir + "/tracing_on", "0");
    { const std::string raw = slurp(m_dir + "/trace"); if (getenv("SCHED_DUMP")) { std::ofstream(getenv("SCHED_DUMP"), std::ios::app) << raw; } parse(raw); }
    for (int cpu = 0;; ++cpu) {
        const std::string stats = m_dir + "/per_cpu/cpu" + std::to_string(cpu) + "/stats";
        if (::access(stats.c_str(), R_OK) != 0) {
            break;
        }
        const std::string text = slurp(stats);
        const long overrun = field(text, "overrun: ");
        if (overrun > 0) {
            m_lost += static_cast<unsigned long>(overrun);
        }
    }
}

void SchedTrace::parse(const std::string& text)
{
    enum class State
    {
        Unknown,
        Running,
        Waiting,
        Blocked
    };
    struct Task
    {
        State state = State::Unknown;
        double since = 0;
    };
    std::map<pid_t, Task> tasks;
    m_children.clear();
    auto close = [&](pid_t pid, Task& task, double at) {
        if (task.state == State::Running || task.state == State::Waiting) {
            m_intervals[pid].push_back({task.since, at, task.state == State::Running});
        }
    };
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (const auto fork = line.find(": sched_process_fork: "); fork != std::string::npos) {
            const auto stampAt = line.rfind(' ', fork);
            const long parent = field(line, " pid=", fork);
            const long child = field(line, " child_pid=", fork);
            if (stampAt != std::string::npos && parent > 0 && child > 0) {
                const double at = std::strtod(line.c_str() + stampAt + 1, nullptr);
                m_children[static_cast<pid_t>(child)] = {static_cast<pid_t>(parent), at, -1};
            }
            continue;
        }
        if (const auto exit = line.find(": sched_process_exit: "); exit != std::string::npos) {
            const auto stampAt = line.rfind(' ', exit);
            const auto child = m_children.find(static_cast<pid_t>(field(line, " pid=", exit)));
            if (stampAt != std::string::npos && child != m_children.end()) {
                child->second.exited = std::strtod(line.c_str() + stampAt + 1, nullptr);
            }
            continue;
        }
        const bool isSwitch = line.find(": sched_switch: ") != std::string::npos;
        const auto event = line.find(isSwitch ? ": sched_switch: " : ": sched_wakeup: ");
        if (event == std::string::npos) {
            continue;
        }
        const auto stampAt = line.rfind(' ', event);
        if (stampAt == std::string::npos) {
            continue;
        }
        const double at = std::strtod(line.c_str() + stampAt + 1, nullptr);
        if (!isSwitch) {
            const long pid = field(line, " pid=", event);
            Task& task = tasks[static_cast<pid_t>(pid)];
            if (pid > 0 && task.state != State::Running && task.state != State::Waiting) {
                task.state = State::Waiting;
                task.since = at;
            }
            continue;
        }
        const long prev = field(line, " prev_pid=", event);
        const long next = field(line, " next_pid=", event);
        const auto stateAt = line.find(" prev_state=", event);
        const bool preempted = stateAt != std::string::npos && line.compare(stateAt + 12, 1, "R") == 0;
        if (prev > 0 && line.find("prev_comm=tsd ", event) != std::string::npos) {
            Task& task = tasks[static_cast<pid_t>(prev)];
            close(static_cast<pid_t>(prev), task, at);
            task.state = preempted ? State::Waiting : State::Blocked;
            task.since = at;
        }
        if (next > 0 && line.find("next_comm=tsd ", event) != std::string::npos) {
            Task& task = tasks[static_cast<pid_t>(next)];
            close(static_cast<pid_t>(next), task, at);
            task.state = State::Running;
            task.since = at;
        }
    }
}

SchedTrace::Split SchedTrace::split(pid_t pid, Clock::time_point from, Clock::time_point to) const
{
    Split s;
    const double a = seconds(from);
    const double b = seconds(to);
    auto overlap = [](double from1, double to1, double from2, double to2) {
        return std::max(0.0, std::min(to1, to2) - std::max(from1, from2));
    };
    const auto it = m_intervals.find(pid);
    static const std::vector<Interval> kNone;
    const std::vector<Interval>& intervals = it == m_intervals.end() ? kNone : it->second;
    for (const Interval& i : intervals) {
        (i.running ? s.runningMs : s.waitingMs) += overlap(a, b, i.from, i.to) * 1000.0;
    }
    // A script counts while the daemon waits for it, not while the daemon
    // runs or waits for a CPU meanwhile (forking it, woken by its end).
    for (const auto& [child, life] : m_children) {
        if (life.parent != pid || life.exited < 0) {
            continue;
        }
        double ms = overlap(a, b, life.forked, life.exited);
        for (const Interval& i : intervals) {
            ms -= overlap(std::max(a, life.forked), std::min(b, life.exited), i.from, i.to);
        }
        s.childrenMs += std::max(0.0, ms) * 1000.0;
    }
    return s;
}

}  // namespace simbench
