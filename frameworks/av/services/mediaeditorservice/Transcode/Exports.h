// Marks what the library shows to its hosts.
#pragma once

#define QM_EXPORT __attribute__((visibility("default")))
