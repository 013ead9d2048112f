// The bytes of a string in a QCborValue, without the UTF-16 and the copies that toString() makes.

#pragma once

#include <QByteArrayView>

#include <functional>

class QCborValue;

// Whether each byte stands for itself in a JSON string (RFC 8259, 7). A question mark does not: it
// may be what half a surrogate pair has become.
bool isPlain(QByteArrayView text);

// Hands the UTF-8 bytes of a string, which stand while use runs, to use and gives its answer.
// False, and use is not called, where Qt does not have them in one piece.
bool visitBytes(const QCborValue &string, const std::function<bool(QByteArrayView)> &use);
