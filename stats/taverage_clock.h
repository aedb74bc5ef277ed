// The clock that taverage_put reads, replaceable so that tests can drive
// time by hand. Not part of the relay's interface.
#pragma once

// Makes TAverage read now() instead of std_now; nullptr restores std_now.
void taverage_set_clock(double (*now)(void));
