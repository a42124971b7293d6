#include "Controls.h"

#include <corvane/V4L2SubDevice.h>

#include "vengine-desc.h"

namespace corvane::info {

KnownControls knownControls(const std::string& model) {
    if (model != VENGINE_MODEL)
        return {};
    KnownControls known = {VENGINE_SUBDEV_ENTITY, {}};
    for (const vengine_control& control : vengine_controls) {
        known.controls.push_back({control.id, control.name,
                                  std::to_string(control.min) + " to " +
                                      std::to_string(control.max) + ", default " +
                                      std::to_string(control.def)});
    }
    return known;
}

int readControls(const Entity& entity, const std::vector<ControlId>& controls,
                 std::vector<ControlValue>& values) {
    NSVista::NSCorvane::V4L2SubDevice subDevice(entity.devnode, entity.name);
    if (const int r = subDevice.openDevice(); r < 0)
        return r;
    for (const ControlId& control : controls) {
        int value = 0;
        const int r = subDevice.getControl(control.id, &value);
        values.push_back({control, r < 0 ? r : 0, value});
    }
    subDevice.closeDevice();
    return 0;
}

}  // namespace corvane::info
