// SPDX-License-Identifier: Apache-2.0
#include "Controls.h"

#include <corvane/V4L2SubDevice.h>

#include <cstdio>
#include <cstring>

#include "Console.h"
#include "vengine-desc.h"

namespace NSVista::NSCorvane::tools {

KnownControls knownControls(const std::string& model) {
    if (model != VENGINE_MODEL)
        return {};
    KnownControls known = {VENGINE_SUBDEV_ENTITY, {}};
    for (const vengine_control& control : vengine_controls) {
        known.controls.push_back({control.id, control.name,
                                  std::to_string(control.min) + " to " +
                                      std::to_string(control.max) + ", default " +
                                      std::to_string(control.def),
                                  control.min, control.max});
    }
    return known;
}

int readControls(const Entity& entity, const std::vector<ControlId>& controls,
                 std::vector<ControlValue>& values) {
    V4L2SubDevice subDevice(entity.devnode, entity.name);
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

void printControls(const Entity& entity, const std::vector<ControlValue>& values) {
    printf("\nControls of %s  %s\n", entity.name.c_str(), entity.devnode.c_str());
    std::vector<Row> rows = {{"id", "name", "value", "range"}};
    for (const ControlValue& value : values) {
        const bool known = !value.control.name.empty();
        rows.push_back({std::to_string(value.control.id), known ? value.control.name : "-",
                        value.error < 0 ? strerror(-value.error) : std::to_string(value.value),
                        value.control.range});
    }
    printTable(rows, {0, 2});
}

}  // namespace NSVista::NSCorvane::tools
