// What the connector calls itself.
#pragma once

constexpr int kVersionMajor = 4;
constexpr int kVersionMinor = 0;
constexpr int kBuildNumber = 108785;
constexpr char kVersionText[] = "4.0 (Build 108785)";
