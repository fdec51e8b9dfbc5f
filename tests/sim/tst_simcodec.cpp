#include "codec.h"

#include <QRandomGenerator>
#include <QtTest>

using namespace hustsim;

namespace {

QList<Request> parseInChunks(const QByteArray &input, int chunk)
{
    RequestParser parser;
    QList<Request> out;
    for (int i = 0; i < input.size(); i += chunk)
        parser.feed(input.constData() + i, qMin(chunk, input.size() - i),
                    [&](Request &&r) { out.append(std::move(r)); });
    return out;
}

} // namespace

// The simulator's request parser on its own: arbitrary input, arbitrary read boundaries.
class TestSimCodec : public QObject
{
    Q_OBJECT

private slots:
    void chunkingDoesNotMatter()
    {
        QRandomGenerator random(20240611);
        const QList<QByteArray> pieces {QByteArray("\x12%\rO9000\rN0\rv01\rd00010\r%\x14"),
                                        QByteArray("\x12%\rO9000\rN1\r%\x14"),
                                        QByteArray("\x12%\rO9012\rN10768\rD000003>9\r%\x14"),
                                        QByteArray("\x12%G00\n%\x14"),
                                        QByteArray("\x12%"),
                                        QByteArray("%\x14"),
                                        QByteArray("\x12"),
                                        QByteArray("garbage\r")};
        // A frame that never ends, then valid envelopes and loose markers mixed with random bytes.
        QByteArray input = "\x12%\r" + QByteArray(2 * kMaxRequestFrame, 'x');
        for (int i = 0; i < 400; ++i) {
            input += pieces.at(int(random.bounded(pieces.size())));
            for (int k = int(random.bounded(8)); k > 0; --k)
                input += char(random.generate());
        }

        const QList<Request> whole = parseInChunks(input, input.size());
        QVERIFY(whole.size() > 1);
        QCOMPARE(whole.first().kind, FrameKind::Malformed);
        for (int chunk : {1, 2, 7, 64}) {
            const QList<Request> split = parseInChunks(input, chunk);
            QCOMPARE(split.size(), whole.size());
            for (int i = 0; i < whole.size(); ++i) {
                QCOMPARE(split.at(i).kind, whole.at(i).kind);
                QCOMPARE(split.at(i).raw, whole.at(i).raw);
            }
        }
        // Everything reported is one of the input's envelopes, in order, and of bounded size.
        int at = 0;
        for (const Request &r : whole) {
            const int found = input.indexOf(r.raw, at);
            QVERIFY(found >= at);
            QVERIFY(r.raw.size() <= kMaxRequestFrame + 1);
            at = found + r.raw.size();
        }
    }
};

QTEST_GUILESS_MAIN(TestSimCodec)
#include "tst_simcodec.moc"
