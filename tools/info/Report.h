/**
 * @file
 * The report in the terminal.
 */
#pragma once

#include <vector>

#include "Controls.h"
#include "Devices.h"

namespace corvane::info {

/** Uses box-drawing characters where the locale's encoding has them; before the first report. */
void setUpTerminal();

/** Prints a device, its topology as a tree and the formats of its nodes. */
void printDevice(const Device& device);

void printControls(const Entity& entity, const std::vector<ControlValue>& values);

}  // namespace corvane::info
