// What a burst of clients leaves behind in the heap goes back to the system.
#pragma once

// Looks a few seconds from now whether much of the heap is unused.
void heapTrimLater();

// No more looks.
void heapTearDown();
