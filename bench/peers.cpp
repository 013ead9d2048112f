// Whom bench.py puts around the server, by the name that the program is started under: "orrery" is
// the application at the end of the pipe, "relay" passes lines between the client and the
// application without looking at more of them than a substring.
//
// What the application says looks like what a real one says, because that decides what it costs:
// one letter repeated is learnt by every branch predictor. It is the same on every machine.

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <utility>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr size_t LargeBytes = 1'000'000;
constexpr unsigned LifetimeSeconds = 120; // should nobody end it

// A descriptor read by lines and written whole.
class Line
{
public:
    Line(int input, int output) : in(input), out(output) { }

    // The next line with its line feed; empty at the end.
    std::string next()
    {
        for (size_t searched = begin;;) {
            if (const size_t end = buffer.find('\n', searched); end != std::string::npos) {
                const size_t first = std::exchange(begin, end + 1);
                return buffer.substr(first, begin - first);
            }
            buffer.erase(0, std::exchange(begin, 0));
            searched = buffer.size();
            buffer.resize(searched + 65'536);
            const ssize_t count = read(in, buffer.data() + searched, 65'536);
            buffer.resize(searched + static_cast<size_t>(std::max<ssize_t>(count, 0)));
            if (count <= 0)
                return {};
        }
    }

    void write(const std::string &text) const
    {
        for (size_t sent = 0; sent < text.size();) {
            const ssize_t count = ::write(out, text.data() + sent, text.size() - sent);
            if (count <= 0)
                return;
            sent += static_cast<size_t>(count);
        }
    }

private:
    int in;
    int out;
    std::string buffer;
    size_t begin = 0; // of what was not yet taken
};

sockaddr_un pipeAddress()
{
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    const std::string path = std::filesystem::temp_directory_path()
                             / ("orrery-control-" + std::to_string(getuid()));
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

// The text between "KEY": and what ends a number; empty without it.
std::string number(const std::string &line, const std::string &key)
{
    const size_t at = line.find('"' + key + "\":");
    if (at == std::string::npos)
        return {};
    const size_t begin = at + key.size() + 3;
    return line.substr(begin, line.find_first_of(",}", begin) - begin);
}

// The bytes of a compressed picture, behind a PNG's signature.
std::string picture()
{
    constexpr auto Digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::mt19937 random; // its sequence is the same everywhere
    std::string base64 = "iVBORw0KGgo";
    while (base64.size() < LargeBytes)
        base64 += Digits[random() % 64];
    return R"({"format":"png","width":1024,"height":768,"imageBase64":")" + base64 + "\"}";
}

std::string machine(size_t count)
{
    const std::string n = std::to_string(count);
    return R"({"id":"/home/jörg/Orrery/Büro )" + n + R"(.vm","name":"Büro )" + n
           + R"( – 開発","os":"windows","state":"running","cpu":4,"ramGB":7.5,"diskGB":)" + n
           + R"(,"bridgeInterface":null,"installed":true,"sharedFolders":[],)"
           + R"("notes":"\"C:\\Users\\Jörg\" is shared\nsee https:\/\/example.org\/)" + n
           + R"(","display":{"width":1024,"height":768},"guestAddress":"192.168.64.)"
           + std::to_string(count % 254) + "\"}";
}

std::string machines()
{
    std::string rows = '[' + machine(1);
    for (size_t count = 2; rows.size() < LargeBytes; ++count)
        rows.append(1, ',').append(machine(count));
    return rows + ']';
}

std::string event(int count)
{
    return R"({"method":"job_progress","params":{"jobId":"job-4","kind":"create_vm","name":)"
           R"("Büro 4","state":"running","step":"downloading \"debian-12.iso\"","progress":)"
           + std::to_string(count % 100) + "}}\n";
}

int application()
{
    const sockaddr_un address = pipeAddress();
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    if (bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0
        || listen(listener, 1) != 0)
        return 1;
    const std::string image = picture();
    const std::string rows = machines();
    const std::string row = machine(1);
    const int client = accept(listener, nullptr, nullptr);
    Line pipe(client, client);
    for (std::string line; !(line = pipe.next()).empty();) {
        const auto asks = [&](const char *tool) { return line.find(tool) != std::string::npos; };
        const std::string &result = asks("\"capture_screen\"") ? image
                                    : asks("\"list_vms\"")     ? rows
                                                               : row;
        std::string lines;
        for (int left = std::atoi(number(line, "events").c_str()); left > 0; --left)
            lines += event(left);
        lines.append("{\"id\":").append(number(line, "id"));
        pipe.write(lines.append(",\"result\":").append(result).append("}\n"));
    }
    return 0;
}

int relay()
{
    Line client(STDIN_FILENO, STDOUT_FILENO);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    Line pipe(fd, fd);
    bool connected = false;
    for (std::string line; !(line = client.next()).empty();) {
        if (line.find("\"tools/call\"") == std::string::npos) {
            client.write("{\"id\":" + number(line, "id") + ",\"result\":{}}\n");
            continue;
        }
        const sockaddr_un address = pipeAddress();
        if (!connected
            && connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
            return 1;
        connected = true;
        pipe.write(line);
        std::string answer;
        do
            client.write(answer = pipe.next());
        while (!answer.empty() && answer.compare(0, 6, "{\"id\":") != 0);
    }
    return 0;
}

} // namespace

int main(int, char *argv[])
{
    alarm(LifetimeSeconds);
    return std::filesystem::path(argv[0]).filename() == "relay" ? relay() : application();
}
