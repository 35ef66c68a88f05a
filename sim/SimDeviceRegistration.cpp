// Linked into every program that offers "sim" devices: makes the software
// card build the exchange simulator for them.
#include "sim/SimDevice.h"

namespace {

const bool g_registered = soft_card_register_source("sim", &CSimDevice::Create);

}  // namespace
