// Fuzz target: the configuration cache taking the database's batches and
// single changes. Input: strings separated by NUL bytes; a first string "b"
// makes the rest one batch (key, value, ...), anything else single changes
// (key, value, a third string's first byte for moreToCome). The cache and
// what it tells its listeners must agree with the input.
#include "configcache.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    QList<QByteArray> parts = QByteArray(reinterpret_cast<const char*>(data), int(size)).split('\0');
    const bool batch = parts.takeFirst() == "b";
    QStringList strings;
    for (const QByteArray& part : qAsConst(parts))
        strings << QString::fromUtf8(part);

    ConfigCache cache;
    QList<QStringList> told;
    QObject::connect(&cache, &ConfigCache::valueChanged, [&told](QString key, QString value, bool more) {
        told << QStringList{key, value, more ? "more" : "last"};
    });
    if (batch) {
        cache.configValueBatchUpdate(strings);
        const bool odd = strings.size() % 2 != 0;
        if (told.size() != (odd ? 0 : strings.size() / 2) || cache.isBatchReceived() == odd)
            std::abort();
        QMap<QString, QString> expected;
        for (int i = 0; i + 1 < strings.size() && !odd; i += 2) {
            expected.insert(strings.at(i), strings.at(i + 1));
            if (told.at(i / 2) != QStringList{strings.at(i), strings.at(i + 1), i + 2 < strings.size() ? "more" : "last"})
                std::abort();
        }
        for (auto it = expected.cbegin(); it != expected.cend(); ++it) {
            bool ok = false;
            if (cache.getConfigValue(it.key(), &ok) != it.value() || !ok)
                std::abort();
        }
    } else {
        for (int i = 0; i + 1 < strings.size(); i += 3) {
            const bool more = i + 2 < strings.size() && strings.at(i + 2).startsWith('m');
            cache.configValueChanged(strings.at(i), strings.at(i + 1), more);
            bool ok = false;
            if (told.last() != QStringList{strings.at(i), strings.at(i + 1), more ? "more" : "last"}
                || cache.getConfigValue(strings.at(i), &ok) != strings.at(i + 1) || !ok)
                std::abort();
        }
    }
    return 0;
}
