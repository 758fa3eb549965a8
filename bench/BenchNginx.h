#pragma once
// An nginx serving a folder on 127.0.0.1 at a free port (tests/servers/nginx_server.py), for as
// long as the object lives.
#include <QProcess>

#include <string>

namespace KsBench
{
class BenchNginx
{
public:
    // Exits the program when the server does not start.
    explicit BenchNginx(const std::string& inRoot);
    ~BenchNginx();
    std::string url() const { return "http://127.0.0.1:" + std::to_string(mPort); }
    // nginx's access log: per request its connection, request line, status and body bytes.
    const std::string& accessLog() const { return mAccessLog; }
    // Requests answered so far (lines of its access log, which nginx writes as it answers).
    long long requests() const;

private:
    QProcess mProcess;
    int mPort = 0;
    std::string mAccessLog;
};
}
