// How fast is the server, compared with the least that anything in its place has to do?
//
//   orrery-bench SERVER    measures the server beside a raw relay, in turns, and prints ratios
//
// The same program plays the other parts, by the name that it is started under: "orrery" is the
// application at the end of the pipe, "relay" passes lines between the client and the application
// without looking at more of them than a substring. Both bound to the same processor as the server,
// so that only the work counts and not where the scheduler puts it.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <csignal>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr int Rounds = 7;
constexpr int Events = 20'000;
constexpr size_t ImageBytes = 1'000'000;
constexpr unsigned LifetimeSeconds = 120; // of a part whose other end is lost

// A descriptor read by lines and written whole.
class Line
{
public:
    explicit Line(int input = -1, int output = -1) : in(input), out(output) { }

    // The next line with its line feed; empty at the end.
    std::string next()
    {
        for (size_t searched = 0;;) {
            if (const size_t end = buffer.find('\n', searched); end != std::string::npos) {
                std::string line = buffer.substr(0, end + 1);
                buffer.erase(0, end + 1);
                return line;
            }
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
};

sockaddr_un pipeAddress()
{
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    const char *folder = getenv("TMPDIR");
    const std::string path = (folder ? folder : "/tmp") + std::string("/orrery-control-")
                             + std::to_string(getuid());
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

// The text between "id": and the comma behind it.
std::string idOf(const std::string &line)
{
    const size_t begin = line.find("\"id\":") + 5;
    return line.substr(begin, line.find_first_of(",}", begin) - begin);
}

void serve(int client, const std::string &image)
{
    Line pipe(client, client);
    for (std::string line; !(line = pipe.next()).empty();) {
        if (line.find("\"job_wait\"") != std::string::npos) {
            for (int i = 0; i < Events; ++i)
                pipe.write("{\"method\":\"progress\",\"params\":{\"percent\":50}}\n");
        }
        const bool wantsImage = line.find("\"capture_screen\"") != std::string::npos;
        pipe.write("{\"id\":" + idOf(line) + ",\"result\":{\"state\":\"running\""
                   + (wantsImage ? ",\"imageBase64\":\"" + image + "\"" : "") + "}}\n");
    }
}

int application()
{
    const sockaddr_un address = pipeAddress();
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    if (bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0
        || listen(listener, 8) != 0)
        return 1;
    const std::string image(ImageBytes, 'A');
    std::signal(SIGCHLD, SIG_IGN);
    for (;;) {
        const int client = accept(listener, nullptr, nullptr);
        if (fork() == 0) {
            alarm(LifetimeSeconds);
            serve(client, image);
            _exit(0);
        }
        close(client);
    }
}

int relay()
{
    Line client(STDIN_FILENO, STDOUT_FILENO);
    Line pipe;
    bool connected = false;
    for (std::string line; !(line = client.next()).empty();) {
        const std::string id = idOf(line);
        if (line.find("\"tools/call\"") == std::string::npos) {
            client.write("{\"id\":" + id + ",\"result\":{}}\n");
            continue;
        }
        if (!connected) {
            const sockaddr_un address = pipeAddress();
            const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
            if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
                return 1;
            pipe = Line(fd, fd);
            connected = true;
        }
        pipe.write(line);
        std::string answer;
        do
            client.write(answer = pipe.next());
        while (!answer.empty() && answer.find("\"result\"") == std::string::npos);
    }
    return 0;
}

// A server or relay that runs, as its client sees it.
class Peer
{
public:
    explicit Peer(const std::string &program)
    {
        int to[2];
        int from[2];
        if (pipe(to) != 0 || pipe(from) != 0 || (pid = fork()) < 0)
            std::exit(1);
        if (pid == 0) {
            dup2(to[0], STDIN_FILENO);
            dup2(from[1], STDOUT_FILENO);
            for (const int fd : { to[0], to[1], from[0], from[1] })
                close(fd);
            execl(program.c_str(), program.c_str(), nullptr);
            _exit(127);
        }
        close(to[0]);
        close(from[1]);
        input = to[1];
        line = Line(from[0], to[1]);
    }

    ~Peer()
    {
        close(input);
        waitpid(pid, nullptr, 0);
    }

    // Sends a request and reads until its answer is there.
    void ask(const std::string &method, const std::string &tool = {})
    {
        line.write("{\"id\":7,\"method\":\"" + method + "\",\"params\":{\"name\":\"" + tool
                   + "\"}}\n");
        for (std::string answer; (answer = line.next()).find("\"result\"") == std::string::npos;) {
            if (answer.empty()) {
                std::fprintf(stderr, "bench: no answer to %s %s\n", method.c_str(), tool.c_str());
                std::exit(1);
            }
        }
    }

private:
    pid_t pid = -1;
    int input = -1;
    Line line;
};

double microseconds(int times, const std::function<void()> &act)
{
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < times; ++i)
        act();
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin)
                   .count()
           / times;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// Measures both in turns; a slow spell of the machine then hits both.
void measure(const char *name, const std::function<double(int)> &run)
{
    std::vector<double> server;
    std::vector<double> ratio;
    for (int round = 0; round < Rounds; ++round) {
        const double floor = run(1);
        server.push_back(run(0));
        ratio.push_back(server.back() / floor);
    }
    std::printf("%-28s %10.1f us %8.2f x relay\n", name, median(server), median(ratio));
}

int bench(const fs::path &server)
{
    std::string folder = (fs::temp_directory_path() / "orrery-bench-XXXXXX").string();
    if (!mkdtemp(folder.data()))
        return 1;
    const fs::path home = folder;
    fs::create_directory(home / "tmp");
    setenv("TMPDIR", (home / "tmp").c_str(), 1);
    fs::copy_file(server, home / "orrery-mcp");
    fs::copy_file("/proc/self/exe", home / "orrery");
    fs::copy_file("/proc/self/exe", home / "relay");

    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(0, &one);
    sched_setaffinity(0, sizeof one, &one);
    const pid_t app = fork();
    if (app == 0) {
        execl((home / "orrery").c_str(), "orrery", nullptr);
        _exit(127);
    }
    while (!fs::exists(pipeAddress().sun_path))
        usleep(1'000);

    const std::string programs[] { home / "orrery-mcp", home / "relay" };
    measure("start-up to first answer",
            [&](int i) { return microseconds(10, [&] { Peer(programs[i]).ask("initialize"); }); });
    Peer first(programs[0]);
    Peer second(programs[1]);
    Peer *const peers[] { &first, &second };
    const auto call = [&](const char *tool, int times) {
        return [=](int i) {
            return microseconds(times, [&] { peers[i]->ask("tools/call", tool); });
        };
    };
    measure("ping", [&](int i) { return microseconds(3'000, [&] { peers[i]->ask("ping"); }); });
    measure("relayed call", call("get_vm", 2'000));
    measure("relayed image of 1 MB", call("capture_screen", 20));
    measure("20,000 relayed events", call("job_wait", 1));
    kill(app, SIGKILL);
    fs::remove_all(home);
    return 0;
}

} // namespace

int main(int argc, char *argv[])
{
    const std::string name = fs::path(argv[0]).filename();
    if (name == "orrery" || name == "relay") {
        alarm(LifetimeSeconds);
        return name == "orrery" ? application() : relay();
    }
    if (argc != 2) {
        std::fputs("usage: orrery-bench SERVER\n", stderr);
        return 2;
    }
    return bench(argv[1]);
}
