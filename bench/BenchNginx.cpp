#include "BenchNginx.h"

#include <QFileInfo>

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace KsBench
{
BenchNginx::BenchNginx(const std::string& inRoot)
{
    const QByteArray src = qgetenv("KSDEPLOY_SOURCE_DIR");
    const QString script =
        src.isEmpty() ? QFileInfo(QStringLiteral(__FILE__)).absolutePath() + "/../tests/servers/nginx_server.py"
                      : QString::fromLocal8Bit(src) + "/tests/servers/nginx_server.py";
    mProcess.start(QStringLiteral("python3"), {"-u", script, "--root", QString::fromStdString(inRoot)});
    QByteArray out;
    while (mProcess.waitForReadyRead(30000))
    {
        out += mProcess.readAllStandardOutput();
        const int log = out.indexOf("ACCESS_LOG ");
        if (log >= 0 && out.indexOf('\n', log) > 0)
            mAccessLog = out.mid(log + 11, out.indexOf('\n', log) - log - 11).toStdString();
        const int at = out.indexOf("PORT ");
        if (at >= 0 && out.indexOf('\n', at) > 0)
        {
            mPort = out.mid(at + 5, out.indexOf('\n', at) - at - 5).toInt();
            const int log = out.indexOf("ACCESS_LOG ");
            if (log >= 0 && log < at)
                mAccessLog = out.mid(log + 11, out.indexOf('\n', log) - log - 11).toStdString();
            break;
        }
    }
    if (mPort <= 0)
    {
        std::fprintf(stderr, "bench: nginx did not start: %s\n", mProcess.readAllStandardError().constData());
        std::exit(2);
    }
}

long long BenchNginx::requests() const
{
    std::ifstream log(mAccessLog);
    long long lines = 0;
    std::string line;
    while (std::getline(log, line))
        ++lines;
    return lines;
}

BenchNginx::~BenchNginx()
{
    mProcess.closeWriteChannel();
    if (!mProcess.waitForFinished(10000))
        mProcess.kill();
}
}
