#ifndef SIGNALPIPE_H
#define SIGNALPIPE_H

#include <QObject>

#include <functional>
#include <initializer_list>

// Runs action in the event loop when one of the signals arrives. The handler
// itself only writes one byte to a pipe, which is async-signal-safe (it may
// interrupt the process inside syslog or malloc); a QSocketNotifier on the
// pipe's other end calls action on the loop's next turn, also for a signal
// that came before the loop ran. Call once; action dies with context. False
// (errno set) when the pipe cannot be made: the signals then keep their
// default action.
bool onSignals(std::initializer_list<int> signalNumbers, QObject* context, std::function<void()> action);

// Ends the application's event loop on one of the signals.
bool quitOnSignals(std::initializer_list<int> signalNumbers);

#endif
