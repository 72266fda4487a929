// Critical sections of the API, which a plug-in asks for and never gives back.
//
// Ownership: the layer's until releaseCriticalSections; a plug-in keeps handles.
// Threads: any. The holder of a section may enter it again; a null section is no
// section, and entering it does nothing.
// Errors: null when memory is short.
#pragma once

#include "nsapi.h"

namespace host {

[[nodiscard]] CRITICAL newCriticalSection();

// Blocks while another thread is inside.
void enterCriticalSection(CRITICAL section);

// REQUIRES: this thread is inside.
void leaveCriticalSection(CRITICAL section);

// Frees every critical section. REQUIRES: nobody uses one any more.
void releaseCriticalSections();

}  // namespace host
