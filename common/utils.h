#ifndef UTILS_H
#define UTILS_H

#include <QString>

namespace Utils {

// Escapes the XML special characters of text in this order: "<", ">", "&",
// "'", '"'. The ampersand comes after the angle brackets, so "<" becomes
// "&amp;lt;" and ">" "&amp;gt;": the controller's description and service files
// have always carried this double escaping and their readers expect it.
QString escapeXml(const QString& text);

// The wireless LAN client interface of this hardware model, which the
// environment variable RAVO_MACHINE names: "mlan0" on the models with NXP
// i.MX processors (RAVO_MACHINE starting with "imx"), "wlan0" on all others.
QString wlanInterfaceName();

// The wireless LAN interface's MAC address as the kernel writes it
// ("00:11:22:33:44:55\n"); empty when it cannot be read.
QString getWlanMacAddress();

} // namespace Utils

#endif // UTILS_H
