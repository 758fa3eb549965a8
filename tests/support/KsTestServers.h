#pragma once
// Test servers on 127.0.0.1 for GoogleTests: the scripts in tests/servers started through
// QProcess. Each prints "PORT <n>" once it listens; the server stops when the object goes
// (its standard input is closed, then it is terminated if it lingers).
#include <QProcess>
#include <QString>
#include <QStringList>

namespace KsTest
{
// The folder that holds nginx_server.py and fault_server.py: $KSDEPLOY_SOURCE_DIR/tests/servers,
// else the source folder this build was configured from.
QString serversDir();

class ScriptServer
{
public:
    virtual ~ScriptServer();
    ScriptServer(const ScriptServer&) = delete;
    ScriptServer& operator=(const ScriptServer&) = delete;

    // Starts the script and waits until it reports its port; false with error() on failure.
    bool start();
    void stop();
    bool isRunning() const { return mPort > 0; }
    int port() const { return mPort; }
    // "http://127.0.0.1:<port>"
    QString url() const;
    // Why start() failed: the script's standard error, or what went wrong.
    QString error() const { return mError; }

protected:
    ScriptServer(const QString& inScript, const QStringList& inArguments);
    // Lines the script printed after "PORT" so far (read without waiting).
    QStringList outputLines();
    // A "KEY value" line printed before "PORT".
    QString startValue(const QString& inKey) const;

private:
    void readLines();

    QString mScript;
    QStringList mArguments;
    QProcess mProcess;
    int mPort = 0;
    QString mError;
    QByteArray mPending;
    QStringList mStartLines;
    QStringList mLines;
};

// nginx serving inRoot; the access log tells how many requests and connections it saw.
class NginxServer : public ScriptServer
{
public:
    explicit NginxServer(const QString& inRoot);

    struct Request
    {
        long long connection;  // nginx's connection serial number
        long long number;      // the request's number on its connection (1 = first)
        QString path;
        int status;
    };
    // The access log so far. nginx logs a request just after answering it, so a caller that
    // knows how many requests it made passes that number to wait (a few seconds at most) for them.
    QList<Request> requests(int inAtLeast = 0) const;
    // Distinct connections that carried at least one request.
    int connectionCount() const;
    QString accessLogPath() const { return startValue(QStringLiteral("ACCESS_LOG")); }
};

// The scripted fault server serving inRoot, with rules "PATTERN=FAULT" (see fault_server.py).
class FaultServer : public ScriptServer
{
public:
    FaultServer(const QString& inRoot, const QStringList& inRules);

    // "GET /path status fault" for every request handled so far, in order.
    QStringList requests();
};
}
