#pragma once

// Symbols of libssoclient are hidden unless marked; only the documented API is exported.
#define SSOCLIENT_API __attribute__((visibility("default")))
