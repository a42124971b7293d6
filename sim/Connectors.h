// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The inputs and outputs of a video node, with the standard or the timings at them.
 */
#pragma once

#include <linux/videodev2.h>

#include <cstdint>
#include <string>

#include <corvane/sim/Description.h>

namespace NSVista::NSCorvane::sim {

/**
 * Answers as the node did with the connector that it had: another one cannot be chosen, since what
 * is behind it is not known. Not thread-safe.
 */
class Connectors {
public:
    /** @param name the node's, which a connector without a name has. */
    Connectors(SignalDesc signal, std::string name);

    static bool isTheirs(uint32_t code);
    /** Any ioctl of isTheirs(). @return 0 or a negated errno. */
    int ioctl(uint32_t code, void* arg);

private:
    const ConnectorDesc* currentConnector() const;
    uint64_t standards() const;
    int enumerate(v4l2_input& input) const;
    int enumerate(v4l2_output& output) const;
    int setStandard(uint64_t standard);
    int getTimings(v4l2_dv_timings& timings) const;
    int setTimings(const v4l2_dv_timings& timings);
    int enumerate(v4l2_enum_dv_timings& timings) const;

    SignalDesc mSignal;
    const std::string mName;
};

}  // namespace NSVista::NSCorvane::sim
