#ifndef QUITONSIGNALS_H
#define QUITONSIGNALS_H

#include <initializer_list>

// Ends the application's event loop when one of the signals arrives. The
// handler only writes one byte to a pipe, which is async-signal-safe; a
// QSocketNotifier on the pipe's other end quits the loop on its next turn.
// Call once, after the QCoreApplication exists. False (errno set) when the
// pipe cannot be made; the signals then keep their default action.
bool quitOnSignals(std::initializer_list<int> signalNumbers);

#endif
