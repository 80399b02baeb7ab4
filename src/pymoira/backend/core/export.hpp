// Symbol visibility of libmoira: the library builds with hidden visibility and exports what
// the two extension modules call.
#pragma once

#define MOIRA_API __attribute__((visibility("default")))
