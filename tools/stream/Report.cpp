// SPDX-License-Identifier: Apache-2.0
#include "Report.h"

#include <corvane/V4L2.h>

#include <cinttypes>
#include <cstdio>

#include "Console.h"
#include "Json.h"
#include "NodeFormats.h"

namespace NSVista::NSCorvane::tools {

namespace {

std::string median(const LatencyHistogram& durations) {
    return durationText(durations.quantile(0.5));
}

std::string portSize(const PixelFormat& format) {
    return format.width == 0 ? std::to_string(format.planes[0].size) + " bytes" : sizeText(format);
}

double perSecond(const RunResult& result) {
    const double seconds = result.seconds.count();
    return seconds > 0 ? static_cast<double>(result.completed) / seconds : 0;
}

void printTables(const Options& options, const std::vector<NodePort>& ports,
                 const client::SceneSession& session, const Content& content,
                 const RunResult& result) {
    printf("%s: %zu port%s, %u in flight, %u buffers a port\n\n", options.model.c_str(),
           ports.size(), ports.size() == 1 ? "" : "s", options.inFlight, options.buffers);
    printf("  %" PRIu64 " requests in %.2f s: %.1f requests per second, %" PRIu64
           " failed, %" PRIu64 " lost\n",
           result.completed, result.seconds.count(), perSecond(result), result.failed, result.lost);
    printf("  queue to callback  min %s, median %s, p99 %s, max %s\n",
           durationText(result.total.least()).c_str(), median(result.total).c_str(),
           durationText(result.total.quantile(0.99)).c_str(),
           durationText(result.total.greatest()).c_str());
    printf("  medians of it      buffers %s, request %s, driver %s, report %s\n\n",
           median(result.buffers).c_str(), median(result.queue).c_str(),
           median(result.driver).c_str(), median(result.report).c_str());

    std::vector<Row> rows = {{"port", "format", "size", "queued", "dequeued", "errors", "remaps"}};
    const auto statistics = session.statistics();
    for (size_t port = 0; port < ports.size(); ++port) {
        const PixelFormat& format = session.format(port);
        const client::PortStatistics& counts = statistics[port];
        rows.push_back({ports[port].entity, v4l2::formatName(format.format), portSize(format),
                        std::to_string(counts.queued), std::to_string(counts.dequeued),
                        std::to_string(content.errors()[port]), std::to_string(counts.remapped)});
    }
    printTable(rows, {3, 4, 5, 6});
}

Json durations(const LatencyHistogram& histogram) {
    return {{"min_ns", histogram.least().count()},
            {"median_ns", histogram.quantile(0.5).count()},
            {"p99_ns", histogram.quantile(0.99).count()},
            {"max_ns", histogram.greatest().count()}};
}

void printJson(const Options& options, const std::vector<NodePort>& ports,
               const client::SceneSession& session, const Content& content,
               const RunResult& result) {
    Json json = {{"model", options.model},
                 {"good", result.isGood()},
                 {"trouble", result.trouble},
                 {"completed", result.completed},
                 {"failed", result.failed},
                 {"lost", result.lost},
                 {"seconds", result.seconds.count()},
                 {"per_second", perSecond(result)},
                 {"in_flight", options.inFlight},
                 {"latency", durations(result.total)},
                 {"ports", Json::array()}};
    const auto statistics = session.statistics();
    for (size_t port = 0; port < ports.size(); ++port) {
        const PixelFormat& format = session.format(port);
        const client::PortStatistics& counts = statistics[port];
        json["ports"].push_back({{"entity", ports[port].entity},
                                 {"format", v4l2::formatName(format.format)},
                                 {"width", format.width},
                                 {"height", format.height},
                                 {"queued", counts.queued},
                                 {"dequeued", counts.dequeued},
                                 {"broken", counts.broken},
                                 {"lost", counts.lost},
                                 {"errors", content.errors()[port]},
                                 {"remapped", counts.remapped}});
    }
    puts(jsonText(json).c_str());
}

}  // namespace

std::string durationText(LatencyHistogram::Duration duration) {
    char text[32];
    const auto ns = static_cast<double>(duration.count());
    if (ns < 1e6)
        snprintf(text, sizeof(text), "%.1f us", ns / 1e3);
    else
        snprintf(text, sizeof(text), "%.2f ms", ns / 1e6);
    return text;
}

void printReport(const Options& options, const std::vector<NodePort>& ports,
                 const client::SceneSession& session, const Content& content,
                 const RunResult& result) {
    const auto print = options.json ? printJson : printTables;
    print(options, ports, session, content, result);
}

}  // namespace NSVista::NSCorvane::tools
