#ifndef DEFAULTS_H
#define DEFAULTS_H

#include <QString>

class QSettings;

// The web root, set by the daemon at start-up from the database settings
// ("data/wwwpath"); the web front end writes its "settings.json" there.
extern QString WWWDir;
// The default of "data/wwwpath". Nobody in this program sets it: it stays empty.
extern QString DataDir;

// Where the backend's RPC services are found, as every backend process reads it
// from the settings of organisation "quarn", application "database".
struct DatabaseSettings
{
    QString socketDir;  // "socketDir", default "/tmp"
    QString socketType; // "socketType", default "local"
    QString wwwPath;    // "data/wwwpath", default DataDir

    // Only the exact text "tcp" selects TCP; anything else means local sockets.
    bool useTcp() const { return socketType == QLatin1String("tcp"); }
};

DatabaseSettings readDatabaseSettings();

// A whole number of the settings within minimum and maximum. Anything else
// (no number, out of range) gives defaultValue, with one warning that names
// the file, the key and the value: a setting mistyped by hand must neither
// spin the daemon nor stall it.
int readNumberSetting(const QSettings& settings, const QString& key, int defaultValue, int minimum, int maximum);

#endif // DEFAULTS_H
