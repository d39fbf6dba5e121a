#include "tests/support/Network.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <thread>

namespace {

const std::string banner = "Enter commands at any time (type '?' for help)\n";
const std::string loaded = "Done loading shared files.\n";

const std::string loopback = "127.0.0.1";

}  // namespace

int freePort() {
    const int place = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    socklen_t length = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    // Never closed: see the declaration.
    const bool bound = ::setsockopt(place, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
                       ::bind(place, generic, length) == 0 && ::getsockname(place, generic, &length) == 0;
    return bound ? ntohs(address.sin_port) : 0;
}

// --- IndexServerProcess

IndexServerProcess::IndexServerProcess(const std::vector<std::string>& options) {
    std::vector<std::string> arguments{"--port", "0", "--bind", loopback};
    arguments.insert(arguments.end(), options.begin(), options.end());
    process_ = std::make_unique<Process>(programPath("tarnwick-index"), arguments, home_.path(),
                                         Process::Input::pipe);
    const std::string listening = "Listening on " + loopback + ":";
    EXPECT_TRUE(process_->waitFor(listening));
    EXPECT_TRUE(process_->waitFor(","));
    const std::string& output = process_->output();
    const std::size_t from = output.find(listening) + listening.size();
    port_ = output.substr(from, output.find(',', from) - from);
}

int IndexServerProcess::count(const std::string& text) {
    const std::string& output = process_->output();
    int count = 0;
    for (std::size_t at = 0; (at = output.find(text, at)) != std::string::npos; at += text.size()) ++count;
    return count;
}

bool IndexServerProcess::said(const std::string& text, int times) {
    return eventually([&] { return count(text) >= times; });
}

int IndexServerProcess::stop() {
    process_->signal(SIGTERM);
    return process_->wait();
}

// --- Client

Client::Client(const std::string& name, const IndexServerProcess& index)
    : name_(name), serverPort_(index.port()), doorPort_(std::to_string(freePort())) {
    run({"port " + doorPort_, "name " + name, "n " + loopback + " " + serverPort_}, Process::Input::pipe);
    process_->closeInput();
    EXPECT_EQ(process_->wait(), 1) << process_->output();
}

void Client::run(const std::vector<std::string>& arguments, Process::Input input) {
    kill();
    process_ = std::make_unique<Process>(programPath("tarnwick"), arguments, home_.path(), input);
}

void Client::launch(const std::vector<std::string>& arguments) { run(arguments, Process::Input::terminal); }

void Client::start(const std::vector<std::string>& arguments) {
    launch(arguments);
    EXPECT_TRUE(eventually([&] {
        const std::string& output = process_->output();
        return output.find(banner) != std::string::npos && output.find(loaded) != std::string::npos;
    })) << process_->output();
}

Client::~Client() { kill(); }

void Client::kill() {
    if (!process_) return;
    for (const char* complaint : {"Sanitizer", "runtime error:", "lock order:"}) {
        EXPECT_EQ(process_->output().find(complaint), std::string::npos) << process_->output();
    }
    process_.reset();
}

void Client::quit() {
    EXPECT_TRUE(type("q", "Are you sure you want to exit?(y or n): \n"));
    console().type("y");
    EXPECT_EQ(console().wait(), 1) << console().output();
}

void Client::logOn() { EXPECT_TRUE(type("c " + std::string("1"), "Connected to: ")) << console().output(); }

bool Client::type(const std::string& line, const std::string& answer) {
    console().type(line);
    return console().waitFor(answer);
}

std::string Client::view(const std::string& line, const std::string& last) {
    const std::size_t before = console().output().size();
    EXPECT_TRUE(type(line, last)) << console().output();
    return console().output().substr(before);
}

void Client::share(const std::string& folder, IndexServerProcess& index) {
    EXPECT_TRUE(type("a " + folder, loaded));
    EXPECT_TRUE(index.said("(" + name_ + ") has published"));
}

std::string Client::search(const std::string& text) {
    EXPECT_TRUE(type("s " + text, "Results returned\n"));
    // The view has no fixed end, so the output of the next command marks it.
    return view("vr\ng", "Files: ");
}

void Client::findAndDownload(const std::string& text) {
    EXPECT_TRUE(eventually([&] {
        const std::string results = search(text);
        return results.find("(1) ") != std::string::npos && results.find("(2) ") == std::string::npos;
    }));
    EXPECT_TRUE(type("d 1", "Downloading: ")) << console().output();
}

u_int Client::transferredKB() {
    const std::string downloads = view("vd", "Total: ");
    const std::size_t row = downloads.find("\t\t");
    if (row == std::string::npos) return 0;
    const std::size_t size = downloads.find('\t', row + 2);
    const std::size_t transferred = downloads.find('\t', size + 1);
    return static_cast<u_int>(std::strtoul(downloads.c_str() + transferred + 1, nullptr, 10));
}

bool Client::hasFinished(const std::string& name, const std::string& bytes, std::chrono::seconds limit) {
    const std::string path = file("incoming/" + name);
    const bool arrived = eventually(
        [&] {
            console().output();
            return std::filesystem::exists(path);
        },
        limit);
    if (!arrived) return false;
    // A download that has ended leaves the list.
    return eventually([&] { return view("vd", "Total: ").find(name) == std::string::npos; }) &&
           hasBytes(path, bytes);
}
