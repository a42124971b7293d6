// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The private ioctls of the sub-device, one row each: how they are called, what they send, and how
 * they end when they are refused. All suites go by these rows.
 */
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <corvane/IV4L2SubDevice.h>
#include <corvane/kvxdip.h>
#include <unistd.h>

#include "vengine-desc.h"

namespace NSVista::NSCorvane::test {

/** What the operations are called with, and what they fill. Closes the fences that it got. */
struct SubDeviceArguments {
    explicit SubDeviceArguments(int dmaBuf) : buffer(dmaBuf) {}
    SubDeviceArguments(const SubDeviceArguments&) = delete;
    SubDeviceArguments& operator=(const SubDeviceArguments&) = delete;
    ~SubDeviceArguments() {
        for (const int fence : fences)
            if (fence >= 0)
                ::close(fence);
    }

    const int buffer;  ///< not owned
    std::unordered_set<int> buffers{buffer};
    std::vector<int> fences{-1, -1, -1};
    uint8_t info[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    int value = 0;
};

/** A record spelled out: every byte that is not put is zero. */
class Record {
public:
    explicit Record(size_t size) : mBytes(size) {}
    Record& put(size_t offset, uint64_t value, size_t size) {
        for (size_t i = 0; i < size; i++)
            mBytes.at(offset + i) = static_cast<uint8_t>(value >> (8 * i));
        return *this;
    }
    operator std::vector<uint8_t>() const { return mBytes; }

private:
    std::vector<uint8_t> mBytes;
};

struct SubDeviceCall {
    uint32_t code;
    std::string name;     ///< without "KVXDIP_IOC_"
    std::string section;  ///< of the trace, after "V4L2SubDevice::"
    std::function<int(IV4L2SubDevice&, SubDeviceArguments&)> run;
    std::vector<uint8_t> record;
    std::string line;    ///< logged when it is refused with EIO
    std::string report;  ///< up to " Please check"; empty where the service does not end by it
};

/**
 * In an order in which the driver takes them all; it is left with one mapping of the buffer.
 * @param node the sub-device's descriptor, for the lines.
 */
inline std::vector<SubDeviceCall> subDeviceCalls(const SubDeviceArguments& with, int node = -1) {
    using Device = IV4L2SubDevice;
    using With = SubDeviceArguments;
    const std::string buffer = std::to_string(with.buffer);
    const std::string fd = " fd=" + std::to_string(node);
    const std::string err = " err=-5(Input/output error)";
    const auto mapping = " err:5(Input/output error) fd:" + buffer + " coherence:";
    constexpr auto big = static_cast<unsigned long>(0x1122334455667788);
    const std::string recording = " is_smvr=2 is_capture=255)";
    const Record memory = Record(2).put(0, 2, 1).put(1, 255, 1);
    const Record user = Record(8).put(0, 0x0807060504030201, 8);
    const Record kva = Record(385).put(0, 1, 1).put(1, with.buffer, 4);
    const Record coherent = Record(260).put(0, with.buffer, 4).put(4, 1, 1).put(256, 1, 4);
    const Record plain = Record(260).put(0, with.buffer, 4).put(256, 1, 4);
    const Record fence =
        Record(9).put(0, 3, 1).put(1, reinterpret_cast<uint64_t>(with.fences.data()), 8);
    return {
        {0x400856CC, "S_INIT_INFO", "setInitInfo",
         [](Device& d, With& w) { return d.setInitInfo(reinterpret_cast<init_info*>(w.info)); },
         user, "[setInitInfo] Failed to KVXDIP_IOC_S_INIT_INFO: -5",
         "KVXDIP_IOC_S_INIT_INFO fail" + err},
        {0x400856CD, "SET_CONTROL", "setControl",
         [](Device& d, With&) { return d.setControl(VENGINE_CTRL_BRIGHTNESS, -3); },
         Record(8).put(0, VENGINE_CTRL_BRIGHTNESS, 4).put(4, 0xFFFFFFFD, 4),
         "[setControl] Failed to KVXDIP_IOC_SET_CONTROL: -5", ""},
        {0xC00856CE, "GET_CONTROL", "getControl",
         [](Device& d, With& w) { return d.getControl(VENGINE_CTRL_BRIGHTNESS, &w.value); },
         Record(8).put(0, VENGINE_CTRL_BRIGHTNESS, 4),
         "[getControl] Failed to KVXDIP_IOC_GET_CONTROL: -5", ""},
        {0x400256D1, "ALOC_BUF", "requestMemory(" + recording,
         [](Device& d, With&) {
             return d.requestMemory({true, 2, 255});
         },
         memory, "[requestMemory] Failed on (" + recording + fd + err,
         "KVXDIP_IOC_ALOC_BUF fail" + err + fd + " " + recording.substr(0, recording.size() - 1)},
        {0x400256D2, "FREE_BUF", "requestMemory(" + recording,
         [](Device& d, With&) {
             return d.requestMemory({false, 2, 255});
         },
         memory, "[requestMemory] Failed on (" + recording + fd + err,
         "KVXDIP_IOC_FREE_BUF fail" + err + fd + " " + recording.substr(0, recording.size() - 1)},
        {0x418156C8, "ADD_KVA", "mapKVA", [](Device& d, With& w) { return d.mapKVA(w.buffers); },
         kva, "[mapKVA] Failed to KVXDIP_IOC_ADD_KVA: -5", "KVXDIP_IOC_ADD_KVA" + err},
        {0x418156C9, "DEL_KVA", "unmapKVA",
         [](Device& d, With& w) { return d.unmapKVA(w.buffers); }, kva,
         "[unmapKVA] Failed to KVXDIP_IOC_DEL_KVA: -5", "KVXDIP_IOC_DEL_KVA" + err},
        {0x410456D4, "ACQUIRE_IOVA", "mapIOVA fd=" + buffer + " coherence=1",
         [](Device& d, With& w) { return d.mapIOVA(w.buffer, true); }, coherent,
         "[mapIOVA] KVXDIP_IOC_ACQUIRE_IOVA:-5" + mapping + "1", "KVXDIP_IOC_ACQUIRE_IOVA" + err},
        {0x410456D5, "RELEASE_IOVA", "unmapIOVA fd=" + buffer + " coherence=1",
         [](Device& d, With& w) { return d.unmapIOVA(w.buffer, true); }, coherent,
         "[unmapIOVA] KVXDIP_IOC_RELEASE_IOVA:-5" + mapping + "1", ""},
        {0x410456D4, "ACQUIRE_IOVA", "mapIOVA fd=" + buffer + " coherence=0",
         [](Device& d, With& w) { return d.mapIOVA(w.buffer, false); }, plain,
         "[mapIOVA] KVXDIP_IOC_ACQUIRE_IOVA:-5" + mapping + "0", "KVXDIP_IOC_ACQUIRE_IOVA" + err},
        {0x400956CF, "ADD_FENCE", "acquireFenceFd #3",
         [](Device& d, With& w) { return d.acquireFenceFd(w.fences); }, fence,
         "[acquireFenceFd] Failed to KVXDIP_IOC_ADD_FENCE: -5", "KVXDIP_IOC_ADD_FENCE" + err},
        {0x400956D0, "DEL_FENCE", "releaseFenceFd #3",
         [](Device& d, With& w) { return d.releaseFenceFd(w.fences); }, fence,
         "[releaseFenceFd] Failed to KVXDIP_IOC_DEL_FENCE: -5", "KVXDIP_IOC_DEL_FENCE" + err},
        {0x401056D3, "CLEAR_USER_RESOURCE", "releaseUserResource",
         [](Device& d, With&) { return d.releaseUserResource(big, ~big); },
         Record(16).put(0, big, 8).put(8, ~big, 8),
         "[releaseUserResource] KVXDIP_IOC_CLEAR_USER_RESOURCE failed:" + fd + err, ""},
    };
}

}  // namespace NSVista::NSCorvane::test
