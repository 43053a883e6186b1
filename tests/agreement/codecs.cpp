// The library's codecs on standard input and output, for the test that holds them against the
// simulator's. One line in, one line out; bytes are written in hexadecimal, "-" for none.
//
//   decode BYTES            value with type code       "TYPE USED VALUE", or "bad"
//   decodeas TYPE BYTES     payload alone              the same
//   encode TYPE VALUE                                  bytes with type code
//   scramble BYTES                                     scrambled bytes
//   unscramble BYTES                                   plain bytes, or "bad"
//   chunk BYTES             notification chunk         "TAG:TYPE:VALUE" or "alarm:FIELD:..." of
//   each frame login REPLY             notification reply         "PROJECT TITLE TIME SIZE HELLO
//   NOTIFYHELLO" read NAMES REPLIES      lookup and read replies    "SENT TYPE:VALUE ..." subscribe
//   NAMES REPLIES                            the same write NAMES REPLIES OBJECT "SENT"; OBJECT is
//   an expression drivers BYTES           driver information file    "NAME:ID:TAGS ..."
//
// A VALUE is a decimal number, a C hexadecimal float, a text's bytes, or "~" for a type without
// payload. The tags of a chunk have their number as type.

#include "DrvInfo.h"
#include "LiveSession.h"
#include "Peer.h"

#include <arpa/inet.h>

#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>

#include "mtool3.h"

namespace {

std::string ToHex(const void* pBytes, size_t nSize) {
    static constexpr char kDigits[] = "0123456789abcdef";
    const BYTE* p = static_cast<const BYTE*>(pBytes);
    std::string str;
    for (size_t i = 0; i < nSize; ++i) {
        str += kDigits[p[i] >> 4];
        str += kDigits[p[i] & 15];
    }
    return nSize ? str : "-";
}
std::string ToHex(const std::string& str) { return ToHex(str.data(), str.size()); }

// The next word of a line as bytes, in memory of just their size.
std::vector<BYTE> Bytes(std::istream& line) {
    std::string str;
    line >> str;
    std::vector<BYTE> bytes;
    for (size_t i = 0; str != "-" && i + 1 < str.size(); i += 2)
        bytes.push_back(static_cast<BYTE>(std::strtoul(str.substr(i, 2).c_str(), nullptr, 16)));
    bytes.shrink_to_fit();
    return bytes;
}
std::string Chars(std::istream& line) {
    const std::vector<BYTE> bytes = Bytes(line);
    return std::string(bytes.begin(), bytes.end());
}

std::string RealText(double d) {
    char sz[64];
    std::snprintf(sz, sizeof sz, "%a", d);
    return d != d ? "nan" : sz;
}

std::string ValueText(const XVariant& value) {
    switch (value.vt) {
        case VT_I1:
            return std::to_string(static_cast<int8_t>(value.bVal));
        case VT_UI1:
        case VT_BOOL:
            return std::to_string(value.bVal);
        case VT_I2:
            return std::to_string(value.iVal);
        case VT_UI2:
            return std::to_string(value.uiVal);
        case VT_I4:
        case VT_INT:
            return std::to_string(value.lVal);
        case VT_UI4:
        case VT_UINT:
            return std::to_string(value.ulVal);
        case VT_I8:
            return std::to_string(value.llVal);
        case VT_R4:
            return RealText(static_cast<double>(value.fltVal));
        case VT_R8:
        case VT_DATE:
            return RealText(value.dblVal);
        case VT_STR:
            return value.pStrVal ? ToHex(*value.pStrVal) : "-";
        default:
            return "~";
    }
}

XVariant ValueOf(VARTYPE vt, const std::string& strText) {
    XVariant value;
    value.vt = vt;
    const long long n = std::strtoll(strText.c_str(), nullptr, 10);
    switch (vt) {
        case VT_STR: {
            std::istringstream line(strText);
            value.pStrVal = new CString(Chars(line));
            break;
        }
        case VT_R4:
            value.fltVal = std::strtof(strText.c_str(), nullptr);
            break;
        case VT_R8:
        case VT_DATE:
            value.dblVal = std::strtod(strText.c_str(), nullptr);
            break;
        case VT_I1:
        case VT_UI1:
        case VT_BOOL:
            value.bVal = static_cast<BYTE>(n);
            break;
        case VT_I2:
        case VT_UI2:
            value.iVal = static_cast<int16_t>(n);
            break;
        case VT_I8:
            value.llVal = n;
            break;
        default:
            if (XVariant::GetVTSize(vt) == 4) value.lVal = static_cast<int32_t>(n);
    }
    return value;
}

std::string Decode(XVariant& value, const std::vector<BYTE>& bytes, bool bIncludeVT) {
    const size_t nUsed = value.FromBuffer(bytes.data(), bytes.size(), bIncludeVT);
    if (nUsed == XVariant::kUndecodable) return "bad";
    return std::to_string(value.vt) + " " + std::to_string(nUsed) + " " + ValueText(value);
}

std::string Encode(std::istream& line) {
    unsigned vt = 0;
    std::string strText;
    line >> vt >> strText;
    const XVariant value = ValueOf(static_cast<VARTYPE>(vt), strText);
    std::vector<BYTE> bytes(value.BufferSize(true));
    value.ToBuffer(bytes.data(), bytes.size(), true);
    return ToHex(bytes.data(), bytes.size());
}

std::string Scrambled(const std::vector<BYTE>& plain) {
    std::vector<BYTE> wire(4 * (plain.size() / 3 + 1));
    const UINT nRoom = static_cast<UINT>(wire.size());
    const int n = EncryptPacket(static_cast<UINT>(plain.size()), plain.data(), nRoom, wire.data());
    return ToHex(wire.data(), static_cast<size_t>(n));
}

std::string Unscrambled(const std::vector<BYTE>& wire) {
    std::vector<BYTE> plain(wire.size());
    const UINT nWire = static_cast<UINT>(wire.size());
    const int n = DecryptPacket(nWire, wire.data(), nWire, plain.data());
    return n == 0 && nWire ? "bad" : ToHex(plain.data(), static_cast<size_t>(n));
}

std::string AlarmText(const BYTE* pRecord, size_t nSize) {
    CByteReader reader(pRecord, nSize);
    S2RtAlarm2 alarm;
    if (!DecodeAlarm(reader, alarm)) return "bad";
    std::ostringstream str;
    str << "alarm:" << alarm.almtm << ":" << alarm.evttm << ":" << alarm.tid << ":" << alarm.type
        << ":" << alarm.grp << ":" << unsigned{alarm.level} << ":" << unsigned{alarm.status} << ":"
        << RealText(alarm.value) << ":" << RealText(alarm.limit);
    return str.str();
}

std::string Chunk(const std::vector<BYTE>& bytes) {
    CLiveSession& live = CLiveSession::Get();
    live.Forget();
    live.core->m_rtAlarmNotifyFn = CountingFunction();
    for (CDBDriver::STag& tag : live.types->m_tags) tag.value.vt = tag.id;
    const CDBSession session;
    CNotifyCall call;
    std::string str;
    for (size_t nPos = 0; nPos < bytes.size();) {
        const BYTE* p = bytes.data() + nPos;
        const size_t nLeft = bytes.size() - nPos;
        const int nBytes = live.core->OnDBNotify(session, p, nLeft, call);
        if (static_cast<size_t>(nBytes) > nLeft) return str + "bad";
        const unsigned nTag = p[2] + 256u * p[3];
        str += p[0] == 0xFF && call.Wanted()
                   ? AlarmText(p + 3, static_cast<size_t>(nBytes) - 3)
                   : std::to_string(nTag) + ":" +
                         std::to_string(live.types->m_tags[nTag].value.vt) + ":" +
                         ValueText(live.types->m_tags[nTag].value);
        str += ' ';
        nPos += static_cast<size_t>(nBytes);
    }
    return str;
}

SScript Uncut(const std::string& strBytes) {
    SScript script(strBytes);
    script.bCuts = false;
    return script;
}

std::string Login(std::istream& line) {
    CClientSock sock;
    CPeer peer({Uncut("7"), Uncut(Chars(line))});
    CString strProject;
    CString strTitle;
    SNAckRegReq record = {};
    if (sock.ConnectDB("192.0.2.1", strProject, strTitle, record, true) != kLoggedIn) return "bad";
    return ToHex(strProject) + " " + ToHex(strTitle) + " " +
           std::to_string(ntohl(record.dif_time)) + " " + std::to_string(ntohl(record.dif_size)) +
           " " + ToHex(peer.Sent(0)) + " " + ToHex(peer.Sent(1));
}

// A request of driver "Types" for names, with the replies to it.
std::string Request(const std::string& strVerb, std::istream& line) {
    CLiveSession& live = CLiveSession::Get();
    live.Forget();
    std::string strNames;
    line >> strNames;
    CPeer peer({Uncut(Chars(line))});
    peer.Attach(live.core->m_reqSock);
    std::vector<CDBDriver::STag*> tags;
    bool bDone = true;
    if (strVerb == "write") {
        std::string strObject;
        std::getline(line, strObject);
        PyObject* globals = PyModule_GetDict(PyImport_AddModule("__main__"));
        PyObject* obj = PyRun_String(strObject.c_str() + 1, Py_eval_input, globals, globals);
        bDone = obj && live.types->SetTagValue(strNames.c_str(), obj) == kWriteDone;
        Py_XDECREF(obj);
    } else if (strVerb == "read") {
        bDone = live.types->_GetTagValue(strNames.c_str(), tags);
    } else {
        bDone = live.types->_ConnectTag(strNames.c_str()) &&
                live.types->CheckTagId(strNames.c_str(), tags);
    }
    std::string str = ToHex(peer.Sent(0));
    for (const CDBDriver::STag* pTag : tags)
        str += pTag ? " " + std::to_string(pTag->value.vt) + ":" + ValueText(pTag->value) : " none";
    return bDone ? str : "bad";
}

std::string Drivers(const std::vector<BYTE>& bytes) {
    std::map<CString, SNDrvInfo> drivers;
    ParseDrvInfo(bytes.data(), bytes.size(), drivers);
    std::string str;
    for (const auto& entry : drivers) {
        str += ToHex(entry.first) + ":" + std::to_string(entry.second.id) + ":" +
               std::to_string(entry.second.tagNum) + " ";
    }
    return str;
}

std::string Answer(std::istream& line) {
    std::string strVerb;
    line >> strVerb;
    XVariant value;
    if (strVerb == "decode") return Decode(value, Bytes(line), true);
    if (strVerb == "decodeas") {
        line >> value.vt;
        return Decode(value, Bytes(line), false);
    }
    if (strVerb == "encode") return Encode(line);
    if (strVerb == "scramble") return Scrambled(Bytes(line));
    if (strVerb == "unscramble") return Unscrambled(Bytes(line));
    if (strVerb == "chunk") return Chunk(Bytes(line));
    if (strVerb == "login") return Login(line);
    if (strVerb == "drivers") return Drivers(Bytes(line));
    return Request(strVerb, line);
}

}  // namespace

int main() {
    std::ios::sync_with_stdio(false);
    for (std::string strLine; std::getline(std::cin, strLine);) {
        std::istringstream line(strLine);
        std::cout << Answer(line) << '\n';
    }
}
