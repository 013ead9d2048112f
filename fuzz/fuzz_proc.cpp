// What another process may make /proc say of it: an environment, and a status line around a name of
// its choice.

#include "../control/image.cpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
    const QString value = environValue(bytes, "APPDIR");
    // Nothing can be found that is not there, at the beginning of an entry.
    if (!value.isNull() && !bytes.startsWith("APPDIR=")
        && !bytes.contains(QByteArray("\0APPDIR=", 8)))
        std::abort();
    (void)statParent(bytes);
    // Whatever a process calls itself, its parent is found behind the name.
    if (statParent("7 (" + bytes + ") S 42 7 7 0") != 42)
        std::abort();
    return 0;
}
