// The export marker of the test modules' entry points: everything else in a
// module stays hidden.
#pragma once

#define QX_MODULE_EXPORT extern "C" __attribute__((visibility("default")))
