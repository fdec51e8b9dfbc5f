// The G-code read sequence fed any answers, one group of port reads per request it sends: each
// exchange yields what a plain search of its whole answer gives (the text between the last start
// marker and a later end marker, without DC2, DC4 and "%"), a program is accepted only when two
// answers agree by the agreement rule, and the sequence ends after a bounded number of exchanges
// and port reads. A send writes the normalised program in one data frame.
#include "hustgcodecontroller.h"
#include "portscript.h"
#include "scriptedport.h"

#include <QCoreApplication>

#include <cstdlib>

namespace {

const char DC2 = 0x12;
const char DC4 = 0x14;

void check(bool condition)
{
    if (!condition)
        std::abort();
}

class InstantGCode : public HustGCodeprotocol
{
protected:
    void pause(int) override { }
};

// The port as the controller's answers reach it: reads of at most 200 bytes, each taken up to
// its first zero byte.
struct Line
{
    QList<QList<QByteArray>> answers;
    QList<QByteArray> pending;
    int polls = 0;
    int exchanges = 0;

    void request()
    {
        ++exchanges;
        if (!answers.isEmpty())
            pending += answers.takeFirst();
    }

    QByteArray poll()
    {
        ++polls;
        if (pending.isEmpty())
            return QByteArray();
        QByteArray &head = pending.first();
        const QByteArray piece = head.left(HustGCodeprotocol::PollSize);
        if (piece.size() == head.size())
            pending.removeFirst();
        else
            head.remove(0, piece.size());
        const int zero = piece.indexOf('\0');
        return zero < 0 ? piece : piece.left(zero);
    }

    QByteArray exchange()
    {
        request();
        QByteArray answer;
        for (int idle = 0; idle < HustGCodeprotocol::IdlePollLimit;) {
            const QByteArray got = poll();
            if (got.isEmpty()) {
                ++idle;
                continue;
            }
            idle = 0;
            answer += got;
            const int start = answer.lastIndexOf(QByteArray("\x12%\r"));
            const int end = answer.lastIndexOf(QByteArray("%\x14"));
            if (start >= 0 && end > start) {
                QByteArray code = answer.mid(start + 3, end - start - 3);
                for (const char c : {DC2, DC4, '%'})
                    code.replace(QByteArray(1, c), QByteArray());
                return code;
            }
            if (answer.size() > HustGCodeprotocol::MaxAnswerSize)
                break;
        }
        return QByteArray();
    }
};

void checkRead(const QList<QList<QByteArray>> &answers, int readType)
{
    ScriptedPort port;
    QList<QList<QByteArray>> toSend = answers;
    port.setResponder([&toSend](ScriptedPort &p, const QByteArray &) {
        if (!toSend.isEmpty()) {
            for (const QByteArray &chunk : toSend.takeFirst())
                p.queueRead(chunk);
        }
    });
    InstantGCode gcode;
    gcode.setReadInterface(&port);
    QByteArray program;
    const bool agreed = gcode.getGCodeFromController(program, readType);

    // The agreement rule over the expected exchanges.
    Line line;
    line.answers = answers;
    QByteArray a = line.exchange();
    QByteArray b = line.exchange();
    bool expectAgreed = true;
    for (int round = 0; a != b; ++round) {
        if (round == HustGCodeprotocol::MaxAgreementRounds) {
            b.clear();
            expectAgreed = false;
            break;
        }
        if (a.size() == b.size()) {
            a = line.exchange();
            b = line.exchange();
        } else if (b.size() < a.size()) {
            b = line.exchange();
        } else {
            a = line.exchange();
        }
    }
    check(agreed == expectAgreed && program == b);
    check(port.readCalls() == line.polls && port.writes().size() == line.exchanges);
    check(line.exchanges <= 2 + 2 * HustGCodeprotocol::MaxAgreementRounds);
    const QByteArray parameter = readType == 0 ? "D000003>:" : "D000003?1";
    for (const QByteArray &frame : port.writes())
        check(frame.contains(parameter));
}

void checkSend(const QByteArray &text, bool burn)
{
    ScriptedPort port;
    InstantGCode gcode;
    gcode.setReadInterface(&port);
    const QByteArray program = HustGCodeprotocol::normalizedGCode(text);
    gcode.sendGCodeToController(program, burn ? 1 : 0);

    // Empty lines and everything from the first zero byte are dropped, nothing else.
    QByteArray lines = text.left(text.indexOf('\0') < 0 ? text.size() : text.indexOf('\0'));
    lines.replace('\n', QByteArray());
    check(QByteArray(program).replace('\n', QByteArray()) == lines);
    check(!program.contains("\n\n") && !program.startsWith('\n') && !program.endsWith('\n'));
    const QList<QByteArray> writes = port.writes();
    check(writes.size() == (burn ? 3 : 2));
    check(writes.at(1) == QByteArray(1, DC2) + '%' + program + '%' + DC4);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    // Signals and QObject need an application object, as in the driver.
    static QCoreApplication app(*argc, *argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *input, size_t size)
{
    if (size < 1)
        return 0;
    // The first byte chooses: read the current program, read all programs, send, send and burn.
    switch (input[0] & 3) {
    case 0:
    case 1:
        checkRead(portScript(input + 1, size - 1), input[0] & 1);
        break;
    default:
        checkSend(QByteArray(reinterpret_cast<const char *>(input + 1), int(size - 1)),
                  input[0] & 1);
        break;
    }
    return 0;
}
