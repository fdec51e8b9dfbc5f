#ifndef PARTPROGRAM_H
#define PARTPROGRAM_H

#include <QByteArray>

// A part program of size bytes, in lines as a CAM system writes them.
inline QByteArray partProgram(int size)
{
    QByteArray text;
    text.reserve(size + 64);
    for (int line = 1; text.size() < size; ++line)
        text += "N" + QByteArray::number(line) + " G01 X12.345 Y-67.890 Z0.5 F1200\n";
    text.truncate(size);
    return text;
}

#endif // PARTPROGRAM_H
