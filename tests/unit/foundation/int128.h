// int128.h: integers of 128 bits under names that a pedantic compiler accepts.
#pragma once

__extension__ typedef __int128 Int128;
__extension__ typedef unsigned __int128 UInt128;
