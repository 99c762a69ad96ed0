// Runs a fuzz target once over every file below the folders given, as a test.
#include <QDirIterator>
#include <QFile>

#include <cstdint>
#include <cstdio>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char* argv[])
{
    LLVMFuzzerInitialize(&argc, &argv);
    int files = 0;
    for (int i = 1; i < argc; ++i) {
        for (QDirIterator it(QString::fromLocal8Bit(argv[i]), QDir::Files, QDirIterator::Subdirectories); it.hasNext(); ++files) {
            QFile file(it.next());
            const QByteArray data = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.constData()), size_t(data.size()));
        }
    }
    std::fprintf(stderr, "%d passed, 0 failed\n", files);
    return files > 0 ? 0 : 1;
}
