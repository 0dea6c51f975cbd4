#include "ElectionPath.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <optional>

namespace simbench {

namespace {

constexpr double kWaitMs = 3000;  // reachable-device debounce and supervision alike
constexpr int kBackoffRangeMs = 200;
// How soon after its answer a daemon acts on a timer or a notification that
// its back-off held up.
constexpr double kHeldMs = 5;
// Kernel stamps of one frame on two interfaces may differ by this much in the
// wrong direction (two clocks reads, one after the other).
constexpr double kStampSlackMs = 0.05;

// The back-off a daemon draws in a given second.
int backoffInSecond(long long second)
{
    std::srand(static_cast<unsigned>(second));
    return std::rand() % kBackoffRangeMs;
}

// How long after a new second time() may still show the old one.
double coarseLagMs()
{
    static const double lag = [] {
        timespec res{};
        ::clock_getres(CLOCK_REALTIME_COARSE, &res);
        return static_cast<double>(res.tv_nsec) / 1e6 + 1;
    }();
    return lag;
}

// The back-off began in the second the daemon seeded with. time() reads the
// coarse clock, which shows a new second only at the next tick, so near a
// boundary both seconds may fit; of those that fit, the back-off began at the
// earliest moment the daemon could take up the request: not before the
// request arrived nor before its previous answer.
int inferBackoff(Clock::time_point sentAt, std::optional<Clock::time_point> notBefore)
{
    const double sent = wallMs(sentAt);
    const double earliest = notBefore ? wallMs(*notBefore) - kStampSlackMs : -1e18;
    const auto second = static_cast<long long>(sent / 1000);
    int best = -1;
    int fallback = backoffInSecond(second);
    double fallbackMiss = 1e18;
    for (long long s : {second, second - 1}) {
        const int b = backoffInSecond(s);
        const double began = sent - b;
        const double secondMs = static_cast<double>(s) * 1000.0;
        const double miss =
            std::max({0.0, secondMs - began, began - (secondMs + 1000.0 + coarseLagMs()), earliest - began});
        if (miss < fallbackMiss) {
            fallback = b;
            fallbackMiss = miss;
        }
        if (miss == 0 && b > best) {
            best = b;
        }
    }
    return best >= 0 ? best : fallback;
}

class Tracer
{
public:
    explicit Tracer(const ElectionInput& in) : m_in(in)
    {
        std::map<int, int> starts;
        for (const Telegram& t : in.telegrams) {
            if (t.outgoing) {
                m_ordinal[&t] = static_cast<int>(m_sent[t.module].size());
                m_sent[t.module].push_back(&t);
                if (t.kind == "start") {
                    m_onParameters[&t] = in.atStart && starts[t.module]++ == 0;
                }
            } else if (t.from >= 0) {
                m_arrivals[{t.module, t.from}].push_back(&t);
            }
        }
        // The requests each module took up, in the order they reached it.
        for (const Telegram& t : in.telegrams) {
            if (!t.outgoing || (t.kind != "start" && t.kind != "resync")) {
                continue;
            }
            for (const auto& [module, sent] : m_sent) {
                if (module == in.except) {
                    continue;
                }
                if (auto at = arrival(module, t)) {
                    m_requests[module].push_back({*at, &t});
                }
            }
        }
        for (auto& [module, requests] : m_requests) {
            std::stable_sort(requests.begin(), requests.end(),
                             [](const Taken& a, const Taken& b) { return a.at < b.at; });
        }
        for (const auto& [module, sent] : m_sent) {
            std::vector<Answer>& answers = m_answers[module];
            for (const Telegram* t : sent) {
                if (t->kind == "item") {
                    answers.push_back(Answer{t, 0, t->time, -1});
                }
            }
            // Aligned from the end: a daemon that started late missed the
            // first requests (they reached its interface before its socket).
            const auto& requests = m_requests[module];
            const long offset = static_cast<long>(requests.size()) - static_cast<long>(answers.size());
            for (std::size_t i = 0; i < answers.size(); ++i) {
                Answer& a = answers[i];
                const long request = static_cast<long>(i) + offset;
                a.request = request >= 0 ? static_cast<int>(request) : -1;
                std::optional<Clock::time_point> notBefore;
                if (i > 0) {
                    notBefore = answers[i - 1].t->time;
                }
                if (a.request >= 0) {
                    const Clock::time_point at = requests[static_cast<std::size_t>(a.request)].at;
                    notBefore = notBefore ? std::max(*notBefore, at) : at;
                }
                a.backoffMs = inferBackoff(a.t->time, notBefore);
                a.began = a.t->time - std::chrono::milliseconds(a.backoffMs);
            }
        }
    }

    Attribution run()
    {
        m_a.observedMs = msBetween(m_in.trigger, m_in.agreed);
        for (const auto& [module, requests] : m_requests) {
            for (const Taken& r : requests) {
                if (r.request->module == module && r.request->kind == "resync" && r.at >= m_in.trigger) {
                    ++m_a.resyncs;
                }
            }
        }
        // The module whose result the simulator saw last.
        int last = -1;
        for (std::size_t m = 0; m < m_in.results.size(); ++m) {
            if (static_cast<int>(m) != m_in.except &&
                (last < 0 || m_in.results[m] > m_in.results[static_cast<std::size_t>(last)])) {
                last = static_cast<int>(m);
            }
        }
        if (last < 0) {
            return m_a;
        }
        // Its publication: the last one the broker got from it up to the agreement.
        std::optional<Clock::time_point> published;
        for (const BusMessage& b : m_in.bus) {
            if (b.module == last && b.kind == BusMessage::Publication && b.time >= m_in.trigger &&
                b.time <= m_in.agreed) {
                published = b.time;
            }
        }
        if (!published) {
            return m_a;
        }
        m_a.measurementMs = msBetween(*published, m_in.agreed);
        step(last, "simulator sees the agreement", *published, m_in.agreed);
        fromPublication(last, *published);
        return m_a;
    }

private:
    struct Taken
    {
        Clock::time_point at;  // when the request reached the module
        const Telegram* request;
    };
    struct Answer
    {
        const Telegram* t;
        int backoffMs;
        Clock::time_point began;
        int request;  // index into the module's requests, -1 when unknown
    };
    enum class Kind
    {
        Simulator,
        Medium,
        Daemons
    };

    // When telegram t (as its sender sent it) reached module; a daemon's own
    // telegrams reach it through the stack at once.
    std::optional<Clock::time_point> arrival(int module, const Telegram& t) const
    {
        if (module == t.module) {
            return t.time;
        }
        const auto ordinal = m_ordinal.find(&t);
        const auto list = m_arrivals.find({module, t.module});
        if (ordinal == m_ordinal.end() || list == m_arrivals.end() ||
            static_cast<std::size_t>(ordinal->second) >= list->second.size()) {
            return std::nullopt;
        }
        const Telegram* at = list->second[static_cast<std::size_t>(ordinal->second)];
        if (at->kind != t.kind || msBetween(t.time, at->time) < -kStampSlackMs) {
            return std::nullopt;  // the order was broken (a frame lost): unknown
        }
        return at->time;
    }

    // Until when the sender of t was busy handing it to the others, at most
    // until next: on an unimpaired bus the kernel copies a frame to every
    // port in the sender's own system call (FireWire hardware broadcasts
    // without the processor), so the last arrival ends the sender's part in
    // the medium.
    Clock::time_point carriedUntil(const Telegram& t, Clock::time_point next) const
    {
        Clock::time_point last = t.time;
        for (const auto& [module, sent] : m_sent) {
            if (module != t.module && module != m_in.except) {
                if (auto at = arrival(module, t)) {
                    last = std::max(last, *at);
                }
            }
        }
        return std::min(last, next);
    }

    const Answer* previous(int module, const Answer& a) const
    {
        const auto& answers = m_answers.at(module);
        return &a == &answers.front() ? nullptr : &a - 1;
    }

    // The module's latest answer for which pick(answer) holds.
    template <typename Pick>
    const Answer* latestAnswer(int module, Pick pick) const
    {
        const auto it = m_answers.find(module);
        const Answer* found = nullptr;
        if (it != m_answers.end()) {
            for (const Answer& a : it->second) {
                if (pick(a)) {
                    found = &a;
                }
            }
        }
        return found;
    }

    // Adds the stretch [from, to] to kind, clipped at the trigger. False when
    // the stretch reaches back before the trigger: the trace ends there.
    // happened: where the stretch's time went, when not at from; sleepAfter:
    // a back-off that follows it (see Attribution::Stretch).
    bool span(Kind kind, int module, const char* what, Clock::time_point from, Clock::time_point to,
              std::optional<Clock::time_point> happened = std::nullopt, int sleepAfterMs = 0)
    {
        const bool before = from < m_in.trigger;
        from = std::max(from, m_in.trigger);
        const double ms = std::max(0.0, msBetween(from, to));
        switch (kind) {
            case Kind::Simulator:
                m_a.simulatorMs += ms;
                break;
            case Kind::Medium:
                m_a.mediumMs += ms;
                m_a.mediumHops.push_back(ms);
                break;
            case Kind::Daemons:
                m_a.daemonsMs += ms;
                m_a.daemonHops.push_back(ms);
                if (ms > 0) {
                    const Clock::time_point at = happened.value_or(from);
                    m_a.daemonStretches.push_back({module, at,
                                                   at + (to - from) + std::chrono::milliseconds(sleepAfterMs),
                                                   static_cast<double>(sleepAfterMs)});
                }
                break;
        }
        step(module, what, from, to);
        return !before;
    }

    void prescribe(double ms, int module, const char* what, Clock::time_point from, Clock::time_point to)
    {
        m_a.prescribedMs += ms;
        step(module, what, from, to);
    }

    void step(int module, const char* what, Clock::time_point from, Clock::time_point to) const
    {
        if (m_in.trace) {
            std::printf("      module %2d  %-40s %9.1f -> %9.1f ms\n", module + 1, what,
                        msBetween(m_in.trigger, from), msBetween(m_in.trigger, to));
        }
    }

    // Every step goes back in time; a misread telegram must not send the
    // trace round in a circle.
    bool goesBack(Clock::time_point t)
    {
        if (t >= m_later) {
            return false;
        }
        m_later = t;
        return true;
    }

    void fromPublication(int module, Clock::time_point published)
    {
        // The last item that reached the module before it published.
        std::optional<Clock::time_point> arrived;
        const Telegram* item = nullptr;
        for (const auto& [sender, sent] : m_sent) {
            for (const Telegram* t : sent) {
                if (t->kind != "item") {
                    continue;
                }
                if (auto at = arrival(module, *t); at && *at <= published && (!arrived || *at > *arrived)) {
                    arrived = at;
                    item = t;
                }
            }
        }
        const Answer* own = latestAnswer(module, [&](const Answer& a) { return a.t->time <= published; });
        if (own && (!arrived || own->t->time >= *arrived)) {
            const Clock::time_point carried = carriedUntil(*own->t, published);
            if (span(Kind::Daemons, module, "publishes after its back-off", carried, published) &&
                span(Kind::Medium, module, "its item carried to every module", own->t->time, carried)) {
                fromAnswer(module, *own);
            }
            return;
        }
        if (!item) {
            return;
        }
        if (!span(Kind::Daemons, module, "publishes after the last item", *arrived, published) ||
            !span(Kind::Medium, item->module, "item to the module", item->time, *arrived)) {
            return;
        }
        const Answer* answer = latestAnswer(item->module, [&](const Answer& a) { return a.t == item; });
        if (answer) {
            fromAnswer(item->module, *answer);
        }
    }

    void fromAnswer(int module, const Answer& a)
    {
        if (!goesBack(a.t->time) || a.t->time <= m_in.trigger) {
            return;
        }
        ++m_a.backoffs;
        if (a.began < m_in.trigger) {
            // Still answering at the trigger: only the part after it.
            prescribe(msBetween(m_in.trigger, a.t->time), module, "back-off (from the trigger)", m_in.trigger,
                      a.t->time);
            return;
        }
        prescribe(a.backoffMs, module, "back-off", a.began, a.t->time);
        fromTakeUp(module, a);
    }

    // Why the module began answering when it did.
    void fromTakeUp(int module, const Answer& a)
    {
        const Answer* before = previous(module, a);
        const Taken* request =
            a.request >= 0 ? &m_requests.at(module)[static_cast<std::size_t>(a.request)] : nullptr;
        if (request && request->at > a.t->time) {
            request = nullptr;  // matched to a later request: unknown
        }
        if (before && (!request || request->at <= before->t->time)) {
            const Clock::time_point carried = carriedUntil(*before->t, a.began);
            if (span(Kind::Daemons, module, "takes up the waiting request", carried, a.began, std::nullopt,
                     a.backoffMs) &&
                span(Kind::Medium, module, "its item carried to every module", before->t->time, carried)) {
                fromAnswer(module, *before);
            }
            return;
        }
        if (!request) {
            return;
        }
        if (!span(Kind::Daemons, module, "takes up the request", request->at, a.began, std::nullopt, a.backoffMs)) {
            return;
        }
        const Telegram& r = *request->request;
        if (r.module != module && !span(Kind::Medium, r.module, "request to the module", r.time, request->at)) {
            return;
        }
        fromRequest(r);
    }

    void fromRequest(const Telegram& r)
    {
        const int sender = r.module;
        if (!goesBack(r.time)) {
            return;
        }
        const auto onParameters = m_onParameters.find(&r);
        if (onParameters != m_onParameters.end() && onParameters->second) {
            const Clock::time_point started = m_in.started.at(static_cast<std::size_t>(sender));
            span(Kind::Simulator, sender, "simulator starts the daemon", m_in.trigger, started);
            span(Kind::Daemons, sender, "daemon starts, start on parameters", started, r.time);
            return;
        }
        const Clock::time_point waitEnds = r.time - std::chrono::milliseconds(static_cast<int>(kWaitMs));
        const Answer* held = latestAnswer(sender, [&](const Answer& a) {
            return a.t->time <= r.time && msBetween(a.t->time, r.time) < kHeldMs;
        });
        if (r.kind == "resync") {
            // Supervision was armed when the daemon took up its last request.
            const Answer* armed = latestAnswer(sender, [&](const Answer& a) {
                return msBetween(a.began, waitEnds) >= -kStampSlackMs;
            });
            if (held && (!armed || held->t->time >= armed->began + (r.time - waitEnds))) {
                if (span(Kind::Daemons, sender, "resync held by its back-off", held->t->time, r.time)) {
                    fromAnswer(sender, *held);
                }
                return;
            }
            if (!armed) {
                return;
            }
            ++m_a.supervisions;
            const Clock::time_point expired = armed->began + (r.time - waitEnds);
            if (!span(Kind::Daemons, sender, "supervision expired, resync", expired, r.time)) {
                return;
            }
            prescribe(kWaitMs, sender, "3000 ms supervision", armed->began, expired);
            if (goesBack(armed->t->time)) {
                fromTakeUp(sender, *armed);
            }
            return;
        }
        // A start after a change of the reachable devices: the broker's last
        // notification before the wait.
        std::optional<Clock::time_point> notified;
        for (const BusMessage& b : m_in.bus) {
            if (b.module == sender && b.kind == BusMessage::Notification &&
                msBetween(b.time, waitEnds) >= -kStampSlackMs) {
                notified = b.time;
            }
        }
        if (held && (!notified || msBetween(*notified, held->t->time) >= kWaitMs)) {
            if (span(Kind::Daemons, sender, "start held by its back-off", held->t->time, r.time)) {
                fromAnswer(sender, *held);
            }
            return;
        }
        if (!notified) {
            return;
        }
        ++m_a.debounces;
        // Notified during a back-off, the daemon took the change in after it.
        const Answer* busy = latestAnswer(sender, [&](const Answer& a) {
            return a.began < *notified && a.t->time > *notified;
        });
        const Clock::time_point takenIn = busy ? busy->t->time : *notified;
        const Clock::time_point ranOut = takenIn + std::chrono::milliseconds(static_cast<int>(kWaitMs));
        // The daemon starts its wait when it reads the notification, which
        // is after it arrived whenever the daemon was busy then: most of the
        // lateness lies right after the notification, where its scheduling
        // is looked up.
        if (!span(Kind::Daemons, sender, "3000 ms wait ran out, start", ranOut, r.time, takenIn)) {
            return;
        }
        prescribe(kWaitMs, sender, "3000 ms reachable-device wait", takenIn, ranOut);
        if (busy) {
            if (span(Kind::Daemons, sender, "takes the change in after its back-off", busy->t->time, takenIn)) {
                fromAnswer(sender, *busy);
            }
            return;
        }
        std::optional<Clock::time_point> updated;
        for (const BusMessage& b : m_in.bus) {
            if (b.module == sender && b.kind == BusMessage::PlatformUpdate && b.time >= m_in.trigger &&
                b.time <= *notified) {
                updated = b.time;
            }
        }
        if (updated) {
            span(Kind::Daemons, sender, "broker notifies the daemon", *updated, *notified);
            span(Kind::Simulator, sender, "platform stand-in publishes the change", m_in.trigger, *updated);
        } else if (m_in.atStart) {
            const Clock::time_point started = m_in.started.at(static_cast<std::size_t>(sender));
            span(Kind::Daemons, sender, "daemon starts, fetches reachable devices", started, *notified);
            span(Kind::Simulator, sender, "simulator starts the daemon", m_in.trigger, started);
        }
    }

    const ElectionInput& m_in;
    Attribution m_a;
    Clock::time_point m_later = Clock::time_point::max();
    std::map<int, std::vector<const Telegram*>> m_sent;
    std::map<std::pair<int, int>, std::vector<const Telegram*>> m_arrivals;  // (receiver, sender)
    std::map<const Telegram*, int> m_ordinal;                                // in its sender's m_sent
    std::map<const Telegram*, bool> m_onParameters;
    std::map<int, std::vector<Taken>> m_requests;
    std::map<int, std::vector<Answer>> m_answers;
};

}  // namespace

Attribution traceElection(const ElectionInput& in)
{
    return Tracer(in).run();
}

}  // namespace simbench
