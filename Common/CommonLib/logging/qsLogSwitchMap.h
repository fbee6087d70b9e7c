// The switch-level map behind qsLogSetSwitchLevel, for inspection.
#pragma once

#include <cstdint>
#include <map>
#include <string>

extern std::map<std::string, uint32_t> g_traceSwitchMap;
