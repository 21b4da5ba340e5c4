// Build configuration shared by every runtime header: the one export macro.
#pragma once

#if defined(QUORIX_BUILDING_RUNTIME) || !defined(_WIN32)
#define QUORIX_API __attribute__((visibility("default")))
#else
#define QUORIX_API
#endif
