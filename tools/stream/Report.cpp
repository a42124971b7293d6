#include "Report.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "Picture.h"

namespace NSVista::NSCorvane::tools {

namespace {

std::string textOf(LatencyHistogram::Duration duration) {
    char text[32];
    const auto ns = static_cast<double>(duration.count());
    if (ns < 1e6)
        snprintf(text, sizeof(text), "%.1f us", ns / 1e3);
    else
        snprintf(text, sizeof(text), "%.2f ms", ns / 1e6);
    return text;
}

std::string median(const LatencyHistogram& durations) {
    return textOf(durations.quantile(0.5));
}

std::string sizeOf(const PixelFormat& format) {
    if (format.width == 0)
        return std::to_string(format.planes[0].size) + " bytes";
    return std::to_string(format.width) + "x" + std::to_string(format.height);
}

}  // namespace

void printReport(const Options& options, const std::vector<NodePort>& ports,
                 const client::SceneSession& session, const Content& content,
                 const RunResult& result) {
    const double seconds = result.seconds.count();
    printf("%s: %zu port%s, %u in flight, %u buffers a port\n\n", options.model.c_str(),
           ports.size(), ports.size() == 1 ? "" : "s", options.inFlight, options.buffers);
    printf("  %" PRIu64 " requests in %.2f s: %.1f requests per second, %" PRIu64
           " failed, %" PRIu64 " lost\n",
           result.completed, seconds,
           seconds > 0 ? static_cast<double>(result.completed) / seconds : 0, result.failed,
           result.lost);
    printf("  queue to callback  min %s, median %s, p99 %s, max %s\n",
           textOf(result.total.least()).c_str(), median(result.total).c_str(),
           textOf(result.total.quantile(0.99)).c_str(), textOf(result.total.greatest()).c_str());
    printf("  medians of it      buffers %s, request %s, driver %s, report %s\n\n",
           median(result.buffers).c_str(), median(result.queue).c_str(),
           median(result.driver).c_str(), median(result.report).c_str());

    size_t nameWidth = 4;
    for (const NodePort& port : ports)
        nameWidth = std::max(nameWidth, port.entity.size());
    const auto width = static_cast<int>(nameWidth);
    printf("  %-*s  %-8s  %-11s  %9s  %9s  %6s\n", width, "port", "format", "size", "queued",
           "dequeued", "errors");
    const auto statistics = session.statistics();
    for (size_t port = 0; port < ports.size(); ++port) {
        const PixelFormat& format = session.format(port);
        printf("  %-*s  %-8s  %-11s  %9" PRIu64 "  %9" PRIu64 "  %6" PRIu64 "\n", width,
               ports[port].entity.c_str(), v4l2::formatName(format.format).c_str(),
               sizeOf(format).c_str(), statistics[port].queued, statistics[port].dequeued,
               content.errors()[port]);
    }
}

}  // namespace NSVista::NSCorvane::tools
