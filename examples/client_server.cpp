// A front end and its server over a real socket pair, with the classic
// interface as a ported caller uses it: the client packs a request for
// function 1002 and sends it; the server restores it, answers with three
// record arrays and sends the packed answer back; the client restores that.
// Once in the 2008 coding and once in the Fast coding. Messages travel with
// a 4-byte length in front (the library does no I/O and adds no framing).
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "trdcomp/TrdCompData.h"
#include "trdcomp/TrdCompRecords.h"

namespace {

bool SendFrame(int fd, const char* p, int len) {
    const unsigned char n[4] = {static_cast<unsigned char>(len), static_cast<unsigned char>(len >> 8),
                                static_cast<unsigned char>(len >> 16), static_cast<unsigned char>(len >> 24)};
    if (write(fd, n, 4) != 4) return false;
    for (int done = 0; done < len;) {
        const ssize_t w = write(fd, p + done, static_cast<size_t>(len - done));
        if (w <= 0) return false;
        done += static_cast<int>(w);
    }
    return true;
}

bool ReadFull(int fd, char* p, size_t len) {
    for (size_t done = 0; done < len;) {
        const ssize_t r = read(fd, p + done, len - done);
        if (r <= 0) return false;
        done += static_cast<size_t>(r);
    }
    return true;
}

bool ReceiveFrame(int fd, std::vector<char>& msg) {
    unsigned char n[4];
    if (!ReadFull(fd, reinterpret_cast<char*>(n), 4)) return false;
    const size_t len = n[0] | n[1] << 8 | n[2] << 16 | static_cast<size_t>(n[3]) << 24;
    if (len > (1u << 24)) return false;
    msg.resize(len);
    return ReadFull(fd, msg.data(), len);
}

void Text(char* field, size_t width, const char* text) { std::strncpy(field, text, width); }

// The server: one request in, one answer of three arrays out.
void Serve(int fd, int coding) {
    std::vector<char> msg;
    if (!ReceiveFrame(fd, msg)) return;
    char* req = NULL;
    int reqLen = 0;
    if (CTrdCompData::RestoreReq2008(msg.data(), static_cast<int>(msg.size()), &req, reqLen, 0) != 1 || req == NULL) return;
    const tagREQ_HEAD* head = reinterpret_cast<const tagREQ_HEAD*>(req);
    const tagREQ_1002* asked = reinterpret_cast<const tagREQ_1002*>(req + sizeof(tagREQ_HEAD));

    // Array 1: two accounts; array 2: three positions; array 3: one status word.
    tagANS_1002_1 accounts[2];
    tagANS_1002_2 positions[3];
    tagANS_1002_3 status[1];
    std::memset(accounts, 0, sizeof accounts);
    std::memset(positions, 0, sizeof positions);
    for (int i = 0; i < 2; ++i) {
        Text(accounts[i].f0, sizeof accounts[i].f0, asked->f3);  // the account the client named
        Text(accounts[i].f64, sizeof accounts[i].f64, i ? "SZ" : "SH");
        accounts[i].f120 = '1';
    }
    for (int i = 0; i < 3; ++i) {
        positions[i].f0 = 'B';
        char code[] = "60000?";
        code[5] = static_cast<char>('0' + i);
        Text(positions[i].f4, sizeof positions[i].f4, code);
        Text(positions[i].f12, sizeof positions[i].f12, "BANK OF EXAMPLE");
    }
    status[0].f0 = head->nRecCount;

    tagANS_Proc proc;
    std::memset(&proc, 0, sizeof proc);
    proc.nFuncId = head->nFuncId;
    Text(proc.szShort, sizeof proc.szShort, "OK");
    Text(proc.szLong, sizeof proc.szLong, "three arrays");
    proc.nArrayCount = 3;
    proc.nRecCount[0] = 2, proc.nRecSize[0] = sizeof(tagANS_1002_1);
    proc.nRecCount[1] = 3, proc.nRecSize[1] = sizeof(tagANS_1002_2);
    proc.nRecCount[2] = 1, proc.nRecSize[2] = sizeof(tagANS_1002_3);
    std::vector<char> out(4096, 0);  // the flags word must start at zero
    int outLen = 0;
    CTrdCompData::PackAns2008(out.data(), static_cast<int>(out.size()), outLen, &proc, reinterpret_cast<char*>(accounts),
                              reinterpret_cast<char*>(positions), reinterpret_cast<char*>(status), NULL, NULL, 0, coding);
    CTrdCompData::ReleaseAnsData(req);
    if (outLen > 0) SendFrame(fd, out.data(), outLen);
}

int Int(const char* p) {
    int v;
    std::memcpy(&v, p, 4);
    return v;
}

// The client: one request out, the answer in and checked.
bool Exchange(int coding, const char* name) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return false;
    std::thread server(Serve, fds[1], coding);

    tagREQ_1002 order;
    std::memset(&order, 0, sizeof order);
    order.f0 = 'B';
    order.f1 = 11;
    Text(order.f3, sizeof order.f3, "ACCT-0042");
    Text(order.f35, sizeof order.f35, "PASSWORD");
    tagREQ_HEAD head;
    std::memset(&head, 0, sizeof head);
    head.nFuncId = 1002;
    head.nFlags = coding;  // bits 4..7: the Fast version, 0 for the 2008 coding
    head.nRecCount = 1;
    head.nRecSize = sizeof order;
    std::vector<char> wire(1024);
    int wireLen = 0;
    CTrdCompData::PackReq2008(wire.data(), wireLen, &head, reinterpret_cast<char*>(&order), sizeof order, 0);
    bool ok = SendFrame(fds[0], wire.data(), wireLen);

    std::vector<char> answer;
    ok = ok && ReceiveFrame(fds[0], answer);
    server.join();
    close(fds[0]);
    close(fds[1]);
    char* back = NULL;
    int backLen = 0;
    ok = ok && CTrdCompData::RestoreAns2008(answer.data(), static_cast<int>(answer.size()), &back, backLen, 0) == 1 && back;
    if (ok) {
        // Head, then the section table (length, then count and size of each array), then the arrays.
        const int table = Int(back + 96);
        const tagANS_1002_1* accounts = reinterpret_cast<const tagANS_1002_1*>(back + 96 + table);
        const tagANS_1002_2* positions = reinterpret_cast<const tagANS_1002_2*>(accounts + Int(back + 100));
        const tagANS_1002_3* status = reinterpret_cast<const tagANS_1002_3*>(positions + Int(back + 108));
        ok = table == 28 && Int(back + 100) == 2 && Int(back + 108) == 3 && Int(back + 116) == 1 &&
             std::strcmp(accounts[1].f0, "ACCT-0042") == 0 && std::strcmp(positions[2].f4, "600002") == 0 &&
             status[0].f0 == 1;
        std::printf("%-5s request %d bytes, answer %d bytes (%d restored): %s, %s, %s\n", name, wireLen,
                    static_cast<int>(answer.size()), backLen, accounts[1].f0, positions[2].f4, ok ? "ok" : "MISMATCH");
    }
    CTrdCompData::ReleaseAnsData(back);
    return ok;
}

}  // namespace

int main() {
    const bool ok2008 = Exchange(0x00, "2008");
    const bool okFast = Exchange(0x10, "fast");
    return ok2008 && okFast ? 0 : 1;
}
