#include "KsTestServers.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QSet>
#include <QThread>

#ifndef KSDEPLOY_SOURCE_DIR
#define KSDEPLOY_SOURCE_DIR ""
#endif

namespace KsTest
{
QString serversDir()
{
    const QByteArray env = qgetenv("KSDEPLOY_SOURCE_DIR");
    const QString root = env.isEmpty() ? QStringLiteral(KSDEPLOY_SOURCE_DIR) : QString::fromLocal8Bit(env);
    return root + QStringLiteral("/tests/servers");
}

ScriptServer::ScriptServer(const QString& inScript, const QStringList& inArguments)
    : mScript(inScript), mArguments(inArguments)
{
}

ScriptServer::~ScriptServer() { stop(); }

QString ScriptServer::url() const { return QStringLiteral("http://127.0.0.1:%1").arg(mPort); }

void ScriptServer::readLines()
{
    mPending += mProcess.readAllStandardOutput();
    int nl;
    while ((nl = mPending.indexOf('\n')) >= 0)
    {
        const QString line = QString::fromLatin1(mPending.left(nl));
        mPending.remove(0, nl + 1);
        if (mPort > 0)
            mLines << line;
        else if (line.startsWith(QLatin1String("PORT ")))
            mPort = line.mid(5).toInt();
        else
            mStartLines << line;
    }
}

bool ScriptServer::start()
{
    if (mPort > 0)
        return true;
    const QString script = serversDir() + QLatin1Char('/') + mScript;
    if (!QFile::exists(script))
    {
        mError = QStringLiteral("server script not found: %1").arg(script);
        return false;
    }
    mProcess.setProgram(QStringLiteral("python3"));
    mProcess.setArguments(QStringList{QStringLiteral("-u"), script} + mArguments);
    mProcess.start();
    if (!mProcess.waitForStarted(10000))
    {
        mError = QStringLiteral("python3 did not start: %1").arg(mProcess.errorString());
        return false;
    }
    // Interpreter start-up can be slow on a busy machine.
    QDeadlineTimer deadline(30000);
    while (mPort <= 0 && !deadline.hasExpired() && mProcess.state() == QProcess::Running)
    {
        mProcess.waitForReadyRead(100);
        readLines();
    }
    if (mPort > 0)
        return true;
    mProcess.kill();
    mProcess.waitForFinished(5000);
    mError = QStringLiteral("%1 did not report its port: %2")
                 .arg(mScript, QString::fromLocal8Bit(mProcess.readAllStandardError()).trimmed());
    return false;
}

void ScriptServer::stop()
{
    if (mProcess.state() == QProcess::NotRunning)
        return;
    // End of input makes the script stop its server and exit.
    mProcess.closeWriteChannel();
    if (!mProcess.waitForFinished(10000))
    {
        mProcess.terminate();
        if (!mProcess.waitForFinished(5000))
        {
            mProcess.kill();
            mProcess.waitForFinished(5000);
        }
    }
    readLines();
    mPort = 0;
}

QStringList ScriptServer::outputLines()
{
    // Take whatever the script has written; it flushes each line before answering.
    while (mProcess.state() == QProcess::Running && mProcess.waitForReadyRead(50))
        ;
    readLines();
    return mLines;
}

QString ScriptServer::startValue(const QString& inKey) const
{
    for (const QString& line : mStartLines)
        if (line.startsWith(inKey + QLatin1Char(' ')))
            return line.mid(inKey.size() + 1);
    return QString();
}

NginxServer::NginxServer(const QString& inRoot)
    : ScriptServer(QStringLiteral("nginx_server.py"), QStringList{QStringLiteral("--root"), inRoot})
{
}

namespace
{
QList<NginxServer::Request> readAccessLog(const QString& inPath)
{
    QList<NginxServer::Request> out;
    QFile log(inPath);
    if (!log.open(QIODevice::ReadOnly))
        return out;
    for (const QByteArray& raw : log.readAll().split('\n'))
    {
        const QList<QByteArray> f = raw.split('\t');
        if (f.size() != 5)
            continue;
        const QList<QByteArray> req = f[2].split(' ');
        out.append({f[0].toLongLong(), f[1].toLongLong(), req.size() > 1 ? QString::fromLatin1(req[1]) : QString(),
                    f[3].toInt()});
    }
    return out;
}
}

QList<NginxServer::Request> NginxServer::requests(int inAtLeast) const
{
    QDeadlineTimer deadline(5000);
    QList<Request> out = readAccessLog(accessLogPath());
    while (out.size() < inAtLeast && !deadline.hasExpired())
    {
        QThread::msleep(10);
        out = readAccessLog(accessLogPath());
    }
    return out;
}

int NginxServer::connectionCount() const
{
    QSet<long long> seen;
    for (const Request& r : requests())
        seen.insert(r.connection);
    return seen.size();
}

namespace
{
QStringList faultArguments(const QString& inRoot, const QStringList& inRules)
{
    QStringList args{QStringLiteral("--root"), inRoot};
    for (const QString& r : inRules)
        args << QStringLiteral("--rule") << r;
    return args;
}
}

FaultServer::FaultServer(const QString& inRoot, const QStringList& inRules)
    : ScriptServer(QStringLiteral("fault_server.py"), faultArguments(inRoot, inRules))
{
}

QStringList FaultServer::requests()
{
    QStringList out;
    for (const QString& line : outputLines())
        if (line.startsWith(QLatin1String("REQUEST ")))
            out << line.mid(8);
    return out;
}
}
