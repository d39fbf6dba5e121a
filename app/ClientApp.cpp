#include "app/ClientApp.h"

#include "app/MessageQ.h"
#include "app/UIInterface.h"
#include "i4min/threads/linux/linux_threads.h"

void ClientApp::init() { messageQ.start(); }

void ClientApp::load() { theUI->loaded(); }

void ClientApp::saveAll() {}

void ClientApp::shutdown() {
    messageQ.stop();
    saveAll();
    i4_uninit();
}
