// Tells a camera thread that is slow from one that hangs.
#pragma once

// Notes that a camera thread has come a step further: a command ended, a part of a picture came.
// Any thread.
void giveSignOfLife();

// How many signs there were in this process; it is compared only. Any thread.
unsigned signsOfLife();
