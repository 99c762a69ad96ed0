#ifndef DEFAULTS_H
#define DEFAULTS_H

#include <QString>

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

#endif // DEFAULTS_H
