// SPDX-License-Identifier: Apache-2.0
#include "Prints.h"
namespace NSVista::NSCorvane::tools {
void printReport(const Evidence&, FILE*) {
}
}  // namespace NSVista::NSCorvane::tools
