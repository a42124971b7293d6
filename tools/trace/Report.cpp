// SPDX-License-Identifier: Apache-2.0
#include <corvane/replay/Decode.h>

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdarg>
#include <string_view>

#include "Prints.h"
#include "Statistics.h"

namespace NSVista::NSCorvane::tools {

namespace {

using replay::Cycle;

constexpr const char kStyle[] = R"(
:root{color-scheme:light dark;--line:#8884;--soft:#8882;--a:#5b8def;--b:#e0913a;--c:#4caf7d;--bad:#d64545}
body{font:15px/1.5 system-ui,sans-serif;max-width:68rem;margin:2rem auto;padding:0 1rem}
h1{font-size:1.5rem;margin:0}h2{font-size:1.1rem;margin:2.2rem 0 .6rem}p{margin:.3rem 0}
.tiles{display:grid;grid-template-columns:repeat(auto-fit,minmax(8rem,1fr));gap:.8rem;margin:1.2rem 0}
.tile{border:1px solid var(--line);border-radius:.5rem;padding:.5rem .9rem}
.tile b{display:block;font-size:1.35rem;font-variant-numeric:tabular-nums}
.bad,.tile.bad b{color:var(--bad)}
table{border-collapse:collapse;width:100%;font-variant-numeric:tabular-nums}
th{text-align:left;font-weight:600;border-bottom:2px solid var(--line)}
td,th{padding:.25rem .7rem .25rem 0;vertical-align:top}td{border-bottom:1px solid var(--soft)}
.n{text-align:right;white-space:nowrap}code{font-size:.85em;overflow-wrap:anywhere}
.bar{display:flex;height:.9rem;min-width:14rem;background:var(--soft)}.bar i{display:block}
.a{background:var(--a)}.b{background:var(--b)}.c{background:var(--c)}
.key i{display:inline-block;width:.8rem;height:.8rem;margin:0 .3rem 0 1rem}
svg{width:100%;height:auto}svg rect{fill:var(--a)}svg text{font:11px system-ui,sans-serif;fill:currentColor}
)";

std::string escaped(std::string_view text) {
    std::string result;
    for (const char c : text) {
        if (c == '&')
            result += "&amp;";
        else if (c == '<')
            result += "&lt;";
        else if (c == '>')
            result += "&gt;";
        else if (c == '"')
            result += "&quot;";
        else
            result += c;
    }
    return result;
}

std::string format(const char* text, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* text, ...) {
    char line[512];
    va_list arguments;
    va_start(arguments, text);
    vsnprintf(line, sizeof(line), text, arguments);
    va_end(arguments);
    return line;
}

std::string timeText(int64_t ns) {
    const auto value = static_cast<double>(ns);
    if (ns < 1000000)
        return format("%.1f µs", value / 1e3);
    return ns < 1000000000 ? format("%.2f ms", value / 1e6) : format("%.2f s", value / 1e9);
}

/** The page, part by part. */
class Page {
public:
    Page(const Evidence& evidence, FILE* out)
        : mEvidence(evidence), mAll(countAll(evidence)), mOut(out) {}

    void write() {
        put("<!doctype html><html lang=en><meta charset=utf-8>"
            "<meta name=viewport content=\"width=device-width\"><title>" +
            escaped(mEvidence.record.program) + ": record</title><style>" + kStyle + "</style>");
        writeHead();
        writeTiles();
        writeLatency();
        writePorts();
        writeFailures();
        writeSlowest();
        writeTimes();
        put("</html>\n");
    }

private:
    void put(const std::string& text) { fputs(text.c_str(), mOut); }
    void heading(const char* text) { put(format("<h2>%s</h2>", text)); }
    void cell(const std::string& text) { put("<td>" + escaped(text) + "</td>"); }
    void number(uint64_t value, bool isBad = false) {
        put(format("<td class=\"n%s\">%" PRIu64 "</td>", isBad && value != 0 ? " bad" : "", value));
    }
    void time(int64_t ns) { put("<td class=n>" + timeText(ns) + "</td>"); }
    /** @param titles those that begin with a dash stand above numbers. */
    void table(std::initializer_list<const char*> titles) {
        put("<table><tr>");
        for (const char* title : titles)
            put(*title == '-' ? format("<th class=n>%s</th>", title + 1)
                              : format("<th>%s</th>", title));
        put("</tr>");
    }

    void writeHead() {
        const replay::Record& record = mEvidence.record;
        put("<h1>" + escaped(record.program) + "</h1><p>process " + std::to_string(record.pid) +
            ", " + escaped(record.architecture) + ", Linux " + escaped(record.release) + ", from " +
            escaped(mEvidence.startText()) +
            format(", %.2f s", mEvidence.secondsOf(record.endNs())) + "</p>");
        if (!record.note.empty()) {
            std::string note = record.note;
            std::replace(note.begin(), note.end(), '\n', ' ');
            put("<p><code>" + escaped(note) + "</code></p>");
        }
        for (const std::string& problem : record.problems)
            put("<p class=bad>" + escaped(problem) + "</p>");
    }

    void tile(const std::string& value, const char* name, bool isBad = false) {
        put(format("<div class=\"tile%s\"><b>%s</b>%s</div>", isBad ? " bad" : "", value.c_str(),
                   name));
    }

    void writeTiles() {
        const auto count = [&](uint64_t value, const char* name) {
            tile(std::to_string(value), name, value != 0);
        };
        put("<div class=tiles>");
        tile(std::to_string(mAll.queued), "requests queued");
        tile(std::to_string(mAll.done), "completed");
        tile(format("%.1f", mAll.perSecond), "requests a second");
        count(mAll.lost, "never completed");
        count(mAll.flawed, "with a broken buffer");
        count(mAll.refused, "refused");
        tile(std::to_string(mEvidence.record.calls.size()), "calls");
        put("</div>");
    }

    void writeLatency() {
        if (mAll.done == 0)
            return;
        heading("Latency");
        table({"phase", "-min", "-median", "-90 %", "-99 %", "-99.9 %", "-max"});
        const std::pair<const char*, const std::vector<int64_t>&> phases[] = {
            {"queueing: first buffer to the request's queue", mAll.queueing},
            {"device: queued to known as complete", mAll.device},
            {"dequeueing: to the last buffer", mAll.dequeueing},
            {"whole", mAll.whole}};
        for (const auto& [name, times] : phases) {
            const Durations durations(times);
            put("<tr>");
            cell(name);
            for (const double share : {0.0, 0.5, 0.9, 0.99, 0.999, 1.0})
                time(durations.quantile(share));
            put("</tr>");
        }
        put("</table>");
        writeHistogram(Durations(mAll.device));
    }

    /** Of the device's part, with buckets that grow by the same factor. */
    void writeHistogram(const Durations& durations) {
        constexpr int kBuckets = 40;
        constexpr double kWidth = 900;
        constexpr double kHeight = 180;
        const double least = std::max(1.0, static_cast<double>(durations.quantile(0)));
        const double most = std::max(least * 1.01, static_cast<double>(durations.quantile(1)));
        const double step = std::log(most / least) / kBuckets;
        uint64_t counts[kBuckets] = {};
        for (const int64_t ns : durations.sorted()) {
            const double place = std::log(std::max(least, static_cast<double>(ns)) / least) / step;
            ++counts[std::clamp(static_cast<int>(place), 0, kBuckets - 1)];
        }
        const auto highest =
            static_cast<double>(*std::max_element(std::begin(counts), std::end(counts)));
        put("<p>Device, requests by time; buckets grow by the same factor.</p>"
            "<svg viewBox=\"0 0 900 210\" role=img aria-label=\"histogram\">");
        for (int i = 0; i < kBuckets; ++i) {
            const double height = kHeight * static_cast<double>(counts[i]) / highest;
            put(format("<rect x=%.1f y=%.1f width=%.1f height=%.1f><title>%s to %s: %" PRIu64
                       "</title></rect>",
                       i * kWidth / kBuckets, kHeight - height, kWidth / kBuckets - 2, height,
                       timeText(static_cast<int64_t>(least * std::exp(step * i))).c_str(),
                       timeText(static_cast<int64_t>(least * std::exp(step * (i + 1)))).c_str(),
                       counts[i]));
        }
        for (int i = 0; i <= 4; ++i)
            put(format(
                "<text x=%.1f y=200 text-anchor=%s>%s</text>", kWidth * i / 4,
                i == 0   ? "start"
                : i == 4 ? "end"
                         : "middle",
                timeText(static_cast<int64_t>(least * std::exp(step * kBuckets * i / 4))).c_str()));
        put("</svg>");
    }

    void writePorts() {
        if (mAll.ports.empty())
            return;
        heading("Ports");
        table({"port", "node", "-queued", "-dequeued", "-refused", "-error flag", "-remaps"});
        for (const PortCounts& port : mAll.ports) {
            put("<tr>");
            cell(port.label);
            cell(port.path);
            number(port.queued);
            number(port.dequeued);
            number(port.refused, true);
            number(port.flawed, true);
            number(port.remapped);
            put("</tr>");
        }
        put("</table>");
    }

    void writeFailures() {
        heading("Calls that failed");
        if (mAll.failures.empty()) {
            put("<p>None.</p>");
            return;
        }
        put("<p>Not every one is an error: a walk over entities or formats ends with EINVAL.</p>");
        table({"what", "-times", "-first at", "the first one"});
        for (const auto& [what, counts] : mAll.failures) {
            const replay::Call& call = mEvidence.record.calls[counts.first];
            put("<tr>");
            cell(what);
            number(counts.count);
            put(format("<td class=n>%.6f s</td><td><code>", mEvidence.secondsOf(call.begin)) +
                escaped(replay::callText(call, mEvidence.record.machine,
                                         mEvidence.labelOf(counts.first))) +
                "</code></td></tr>");
        }
        put("</table>");
    }

    void part(const char* colour, int64_t ns, int64_t whole) {
        put(format("<i class=%s style=\"width:%.2f%%\" title=\"%s\"></i>", colour,
                   whole > 0 ? 100.0 * static_cast<double>(ns) / static_cast<double>(whole) : 0,
                   timeText(ns).c_str()));
    }

    void writeSlowest() {
        if (mAll.slowest.empty())
            return;
        heading("Slowest requests");
        put("<p class=key><i class=a></i>queueing<i class=b></i>device<i class=c></i>dequeueing"
            "</p>");
        table({"request", "-at", "-took", "phases"});
        int64_t longest = 1;
        for (const size_t i : mAll.slowest)
            longest = std::max(longest, endOf(i) - mEvidence.story.cycles[i].beginNs);
        for (const size_t i : mAll.slowest)
            writeSlow(i, longest);
        put("</table>");
    }

    int64_t endOf(size_t i) const {
        const Cycle& cycle = mEvidence.story.cycles[i];
        return cycle.isDone() ? cycle.doneNs : mEvidence.record.endNs();
    }

    void writeSlow(size_t i, int64_t longest) {
        const Cycle& cycle = mEvidence.story.cycles[i];
        const int64_t end = endOf(i);
        const int64_t ready = cycle.readyNs.value_or(end);
        put("<tr>");
        cell("cycle " + std::to_string(i) + ", " + mEvidence.story.objects[cycle.request].label());
        put(format("<td class=n>%.6f s</td>", mEvidence.secondsOf(cycle.beginNs)));
        if (cycle.isDone())
            time(end - cycle.beginNs);
        else
            put("<td class=\"n bad\">never done</td>");
        put("<td><div class=bar>");
        part("a", cycle.queuedNs - cycle.beginNs, longest);
        part("b", ready - cycle.queuedNs, longest);
        part("c", std::max<int64_t>(end - ready, 0), longest);
        put("</div></td></tr>");
    }

    void writeTimes() {
        heading("Where the calls' time went");
        std::vector<std::pair<std::string, CallCounts>> calls(mAll.calls.begin(), mAll.calls.end());
        std::sort(calls.begin(), calls.end(),
                  [](const auto& a, const auto& b) { return a.second.total > b.second.total; });
        int64_t all = 0;
        for (const auto& [name, counts] : calls)
            all += counts.total;
        table({"call", "-times", "-total", "-mean", "-longest", "share"});
        for (const auto& [name, counts] : calls) {
            put("<tr>");
            cell(name);
            number(counts.count);
            time(counts.total);
            time(counts.total / static_cast<int64_t>(counts.count));
            time(counts.longest);
            put("<td><div class=bar>");
            part("a", counts.total, all);
            put("</div></td></tr>");
        }
        put("</table>");
    }

    const Evidence& mEvidence;
    const Statistics mAll;
    FILE* const mOut;
};

}  // namespace

void printReport(const Evidence& evidence, FILE* out) {
    Page(evidence, out).write();
}

}  // namespace NSVista::NSCorvane::tools
