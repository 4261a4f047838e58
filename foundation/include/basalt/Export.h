#pragma once

// Symbols of libbasalt are hidden unless marked; only the documented API is exported.
#define BASALT_API __attribute__((visibility("default")))
#define BASALT_LOCAL __attribute__((visibility("hidden")))
