#ifndef UTILS_H
#define UTILS_H

#include <QString>

namespace Utils {

// Escapes the XML special characters of text in this order: "<", ">", "&",
// "'", '"'. The ampersand comes after the angle brackets, so "<" becomes
// "&amp;lt;" and ">" "&amp;gt;": the controller's description and service files
// have always carried this double escaping and their readers expect it.
QString escapeXml(const QString& text);

} // namespace Utils

#endif // UTILS_H
