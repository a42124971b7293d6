// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The exact content of the virtual engine's frames.
 */
#pragma once

#include <array>
#include <optional>

#include "Content.h"
#include "vengine-picture.h"

namespace NSVista::NSCorvane::tools {

/**
 * Feeds the virtual engine (in the process or as a kernel module) and knows what must come out: the
 * input carries the request's number, tuning and mask change from request to request, and every
 * pixel of every capture is computed and compared.
 */
class EngineContent : public Content {
public:
    /** Whether a device is the engine. */
    static bool isFor(const Device& device);
    /** @return the port whose format is not laid out as the engine does, empty for none. */
    static std::string findStrangeFormat(const std::vector<NodePort>& ports,
                                         const client::SceneSession& session);

    /** Before the session starts, with no strange formats. */
    EngineContent(const std::vector<NodePort>& ports, client::SceneSession& session);

protected:
    void fillOutput(uint64_t number, size_t port, const client::FrameMapping& planes) override;
    void beginCheck(uint64_t number) override;
    std::string checkCapture(uint64_t number, size_t port,
                             const client::FrameMapping& planes) override;

private:
    /** A port as the engine knows it. */
    struct Role {
        uint32_t role;
        uint32_t number;  ///< of the port, on the engine
        vengine_layout layout;
        std::vector<uint8_t> expected;  ///< memory for the computed picture
    };

    std::optional<size_t> find(uint32_t role) const;
    vengine_picture pictureOf(size_t port, const client::FrameMapping& planes) const;
    vengine_picture expectedPicture(Role& role) const;
    std::string checkStats(uint64_t number, const client::FrameMapping& planes);
    std::string checkPicture(uint64_t number, size_t port, const client::FrameMapping& planes);
    uint32_t readFrameNumber(size_t port, const client::FrameMapping& planes) const;

    std::vector<Role> mRoles;
    std::optional<uint32_t> mFirstFrame;  ///< the engine's number of our first request
    vengine_source mSource{};             ///< of the captures of the request at hand
    vengine_tuning mTuning{};
    vengine_picture mInput{};
    vengine_picture mMask{};
};

}  // namespace NSVista::NSCorvane::tools
