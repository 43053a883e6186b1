#include "VzDBAccess/DBDriver.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "ByteCursor.h"
#include "VzDBAccess/DBCore.h"
#include "vznetdef.h"

namespace {

constexpr size_t kLookupBytes = 768;   // a batch of names
constexpr size_t kLookupOverhead = 3;  // of each name: driver id and zero byte
constexpr size_t kMaxName = kLookupBytes - 1 - kLookupOverhead;
constexpr size_t kLookupReply = 4096;
constexpr size_t kSubscribeBytes = 2600;
constexpr size_t kMaxSubscribed = 519;  // tags in one subscription request
constexpr size_t kReadBytes = 4096;
constexpr size_t kMaxRead = 1023;     // tags in one read request
constexpr size_t kChunkBytes = 4096;  // values in one chunk of a reply
constexpr int kMaxEmptyChunks = 16;   // in a row; more are a failure
constexpr size_t kSubscribeHeader = 3;
constexpr size_t kReadHeader = 4;

// Holds a core still for one operation of a driver; false when its session is over.
class COperation {
  public:
    COperation(CDBCore& core, const CDBSession* pSession)
        : m_lock(core.m_opLock), m_bServes(core.Serves(pSession)) {}
    explicit operator bool() const { return m_bServes; }

  private:
    std::lock_guard<std::mutex> m_lock;
    bool m_bServes;
};

// A batch of names to look up: 'L', then driver id (2), name and zero byte of each.
struct SBatch {
    SBatch() { writer.WriteU8(kReqTagId); }
    void Restart() {
        writer = CByteWriter(request, sizeof request);
        writer.WriteU8(kReqTagId);
        names.clear();
    }
    bool Fits(const CString& strName) const {
        return strName.size() + kLookupOverhead <= writer.Room();
    }
    void Add(WORD drvId, const CString& strName) {
        writer.WriteU16(drvId);
        writer.WriteText(strName, strName.size());
        names.push_back(strName);
    }

    char request[kLookupBytes];
    CByteWriter writer{request, sizeof request};
    std::list<CString> names;
};

bool IsArray(const BYTE* pValue, size_t nLen) {
    CByteReader reader(pValue, nLen);
    return reader.ReadU16() == VT_ARRAY;
}

}  // namespace

// ---- Names --------------------------------------------------------------------------------------

void CDBDriver::SetTagCount(DWORD dwCount) {
    m_tags.resize(dwCount);
    WORD nId = 0;
    for (STag& tag : m_tags) tag.id = nId++;
}

void CDBDriver::SetCBFunc(PyObject* cbFunc) {
    PyObject* pNone = nullptr;
    m_tagNotifyFn.compare_exchange_strong(pNone, cbFunc);
}

void CDBDriver::NameRecord(STag& tag, const CString& strName) {
    std::lock_guard<std::mutex> data(m_pDBCore->m_dataLock);
    tag.strTag = strName;
}

WORD CDBDriver::GetTagId(LPCTSTR tagName) {
    if (!tagName || !*tagName || m_tags.empty()) return kNoTagId;
    const CString strName(tagName);
    const auto it = m_mapTagToId.find(strName);
    if (it != m_mapTagToId.end()) return it->second;
    WORD nId = kNoTagId;
    m_pDBCore->GetTagId(m_drvId, tagName, &nId);  // a lookup that failed leaves the id unknown
    if (STag* pTag = RecordOf(nId)) NameRecord(*pTag, strName);
    m_mapTagToId[strName] = nId;
    return nId;
}

bool CDBDriver::CheckTagId(LPCTSTR tags, std::vector<STag*>& reqTags) {
    const CString strTags(tags);
    SBatch batch;
    for (int nAt = 0;;) {
        CString strName = strTags.Tokenize(",", nAt);
        if (strName.IsEmpty()) break;
        strName.Trim(' ');
        if (strName.IsEmpty() || strName.size() > kMaxName) {
            reqTags.push_back(nullptr);
            continue;
        }
        const auto it = m_mapTagToId.find(strName);
        if (it != m_mapTagToId.end()) {
            reqTags.push_back(RecordOf(it->second));
            continue;
        }
        if (!batch.Fits(strName)) {
            if (!ReqBatchGetPoss(batch.names, batch.request, batch.writer.Size(), reqTags))
                return false;
            batch.Restart();
        }
        batch.Add(m_drvId, strName);
    }
    return batch.names.empty() ||
           ReqBatchGetPoss(batch.names, batch.request, batch.writer.Size(), reqTags);
}

// Reply: 'L', then tag id (2) and two bytes that mean nothing here, for each name.
bool CDBDriver::ReqBatchGetPoss(std::list<CString>& curTags, const char* szSend, size_t nLen,
                                std::vector<STag*>& reqTags) {
    char reply[kLookupReply];
    const size_t nReply = 1 + 4 * curTags.size();
    if (!m_pDBCore->RequestAll(szSend, nLen, nReply, reply)) return false;
    CByteReader reader(reply, nReply);
    if (reader.ReadU8() != kReqTagId) return false;
    for (const CString& strName : curTags) {
        const WORD nId = reader.ReadU16();
        reader.Take(2);
        STag* pTag = RecordOf(nId);
        // First of all: a name that is in the map is never looked up again.
        if (pTag) NameRecord(*pTag, strName);
        m_mapTagToId[strName] = nId;
        reqTags.push_back(pTag);
    }
    return true;
}

// The records whose values a reply brings, in order, and how far it has come.
struct CDBDriver::SReplyValues {
    const std::vector<STag*>& asked;
    const bool bSubscribe;  // the values are those of a subscription
    size_t nNext = 0;
    int nEmptyChunks = 0;  // in a row

    bool Complete() const { return nNext == asked.size(); }
};

// ---- Subscribe and read -------------------------------------------------------------------------

// Request: 'b', count (2), then for each tag driver id (2), tag id (2), 0.
bool CDBDriver::_ConnectTag(LPCTSTR tags) {
    COperation operation(*m_pDBCore, m_pSession);
    std::vector<STag*> reqTags;
    if (!operation || !CheckTagId(tags, reqTags)) return false;
    BYTE request[kSubscribeBytes];
    CByteWriter writer(request, sizeof request);
    writer.WriteU8(kReqSubscribe);
    writer.WriteU16(0);
    std::vector<STag*> asked;
    for (STag* pTag : reqTags) {
        if (asked.size() == kMaxSubscribed) break;
        if (!pTag || pTag->bSubscribe) continue;
        const STagItem item = {m_drvId, pTag->id, 0};
        writer.WriteU16(item.drvId);
        writer.WriteU16(item.dpos);
        writer.WriteU8(item.item);
        asked.push_back(pTag);
    }
    if (asked.empty()) return true;
    writer.PatchU16(1, static_cast<WORD>(asked.size()));
    return m_pDBCore->m_reqSock.SendAll(request, static_cast<int>(writer.Size()), 0) &&
           ReadSubscribed(asked);
}

// Reply: chunks of 'b', length (2) and that many bytes of values with type code, one per tag in the
// order asked. Code and length must each come in one receive.
bool CDBDriver::ReadSubscribed(const std::vector<STag*>& asked) {
    CReqTimeSock& sock = m_pDBCore->m_reqSock;
    SReplyValues values{asked, true};
    while (!values.Complete()) {
        BYTE header[kSubscribeHeader];
        if (sock._Recv(header, 1, 0) != 1 || header[0] != kReqSubscribe) return false;
        if (sock._Recv(header + 1, 2, 0) != 2) return false;
        CByteReader reader(header, sizeof header);
        reader.Take(1);
        if (!TakeChunk(reader.ReadU16(), values)) return false;
    }
    return true;
}

// Request: 'H', count (2), then for each tag driver id (2), tag id (2).
bool CDBDriver::_GetTagValue(LPCTSTR tags, std::vector<STag*>& reqTags) {
    if (!CheckTagId(tags, reqTags)) return false;
    BYTE request[kReadBytes];
    CByteWriter writer(request, sizeof request);
    writer.WriteU8(kReqRead);
    writer.WriteU16(0);
    std::vector<STag*> asked;
    for (STag* pTag : reqTags) {
        if (asked.size() == kMaxRead) break;
        if (!pTag || pTag->bSubscribe) continue;
        writer.WriteU16(m_drvId);
        writer.WriteU16(pTag->id);
        asked.push_back(pTag);
    }
    if (asked.empty()) return true;
    writer.PatchU16(1, static_cast<WORD>(asked.size()));
    return m_pDBCore->m_reqSock.SendAll(request, static_cast<int>(writer.Size()), 0) &&
           ReadAsked(asked);
}

// Reply: chunks of 'H', 1 when another chunk follows, length (2) and that many bytes of values with
// type code. The header must come in one receive. A last chunk ends the reply also when values are
// missing.
bool CDBDriver::ReadAsked(const std::vector<STag*>& asked) {
    CReqTimeSock& sock = m_pDBCore->m_reqSock;
    SReplyValues values{asked, false};
    for (bool bMore = true; bMore && !values.Complete();) {
        BYTE header[kReadHeader];
        if (sock._Recv(header, sizeof header, 0) != static_cast<int>(sizeof header)) return false;
        CByteReader reader(header, sizeof header);
        if (reader.ReadU8() != kReqRead) return false;
        bMore = reader.ReadU8() == 1;
        if (!TakeChunk(reader.ReadU16(), values)) return false;
    }
    return true;
}

// Receives the nChunk bytes of a chunk and stores their values. False when they do not come, are
// too many, or are the last of too many empty chunks in a row.
bool CDBDriver::TakeChunk(WORD nChunk, SReplyValues& values) {
    BYTE chunk[kChunkBytes];
    if (nChunk > sizeof chunk || !m_pDBCore->m_reqSock.RecvAll(chunk, nChunk, 0)) return false;
    values.nEmptyChunks = nChunk ? 0 : values.nEmptyChunks + 1;
    return values.nEmptyChunks < kMaxEmptyChunks && StoreValues(chunk, nChunk, values);
}

// Stores the values of one chunk into the records whose turn it is. False for a value cut by the
// chunk's end and for more values than asked.
bool CDBDriver::StoreValues(const BYTE* pChunk, size_t nChunk, SReplyValues& values) {
    std::lock_guard<std::mutex> data(m_pDBCore->m_dataLock);
    for (size_t nPos = 0; nPos < nChunk;) {
        if (values.Complete()) return false;
        STag& tag = *values.asked[values.nNext];
        const bool bArray = IsArray(pChunk + nPos, nChunk - nPos);
        const size_t nUsed = tag.value.FromBuffer(pChunk + nPos, nChunk - nPos, true);
        if (nUsed == XVariant::kUndecodable) return false;
        if (values.bSubscribe) tag.bSubscribe = true;
        ++values.nNext;
        // The size of an array's elements is not part of its value's size, so nothing can follow
        // it.
        if (bArray) break;
        nPos += nUsed;
    }
    return true;
}

// Runs a read and copies what it found, so that the objects are made without a lock: making one may
// run a collection of garbage, and with it any script code.
bool CDBDriver::CopyValues(LPCTSTR tags, std::vector<XVariant>& values, std::vector<bool>& known) {
    COperation operation(*m_pDBCore, m_pSession);
    std::vector<STag*> reqTags;
    if (!operation || !_GetTagValue(tags, reqTags)) return false;
    std::lock_guard<std::mutex> data(m_pDBCore->m_dataLock);
    values.reserve(reqTags.size());
    known.reserve(reqTags.size());
    for (const STag* pTag : reqTags) {
        known.push_back(pTag != nullptr);
        if (pTag) {
            values.push_back(pTag->value);
        } else {
            values.emplace_back();
        }
    }
    return true;
}

PyObject* CDBDriver::GetTagValue(LPCTSTR tags) {
    std::vector<XVariant> values;
    std::vector<bool> known;
    if (!CopyValues(tags, values, known) || values.empty()) Py_RETURN_NONE;
    if (values.size() == 1) {
        if (!known[0]) Py_RETURN_NONE;
        return ValueToObj(&values[0]);
    }
    PyObject* list = PyList_New(static_cast<Py_ssize_t>(values.size()));
    for (size_t i = 0; list && i < values.size(); ++i) {
        if (!known[i]) continue;  // deliberate: the slot stays empty
        PyObject* value = ValueToObj(&values[i]);
        if (value) {
            PyList_SET_ITEM(list, static_cast<Py_ssize_t>(i), value);
        } else if (PyErr_Occurred()) {
            Py_CLEAR(list);
        }
    }
    return list;
}

PyObject* CDBDriver::ValueToObj(const XVariant* pValue) {
    switch (pValue->vt) {
        case VT_I2:
            return PyLong_FromLong(pValue->iVal);
        case VT_I4:
        case VT_UI4:  // deliberate: read as signed, so 4294967295 gives -1
        case VT_INT:
        case VT_UINT:
            return PyLong_FromLong(pValue->lVal);
        case VT_R4:
            return PyFloat_FromDouble(static_cast<double>(pValue->fltVal));
        case VT_R8:
            return PyFloat_FromDouble(pValue->dblVal);
        case VT_STR:
            return pValue->pStrVal ? TextToObj(*pValue->pStrVal) : PyUnicode_FromString("");
        case VT_BOOL:
            return PyBool_FromLong(pValue->boolVal);
        case VT_I1:  // deliberate: read as unsigned, as VT_UI1
        case VT_UI1:
            return PyLong_FromLong(pValue->bVal);
        case VT_UI2:
            return PyLong_FromLong(pValue->uiVal);
        default:
            return nullptr;
    }
}

// ---- Write --------------------------------------------------------------------------------------

// What the script gave, encoded before anything is sent or locked.
struct CDBDriver::SEncoded {
    struct SItem {
        std::string strBytes;  // empty: it cannot be encoded
        bool bOverflow = false;
    };
    bool bList = false;
    std::vector<SItem> items;

    void Add(PyObject* obj) {
        BYTE buf[kMaxWriteBytes];
        UINT nLen = 0;
        SItem item;
        if (ObjToBuf(obj, buf, nLen)) item.strBytes.assign(buf, buf + nLen);
        item.bOverflow = PyErr_Occurred() && PyErr_ExceptionMatches(PyExc_OverflowError);
        if (item.bOverflow) PyErr_Clear();
        items.push_back(std::move(item));
    }

    // Encodes a single value, or up to nMax items of a list.
    SEncoded(PyObject* obj, Py_ssize_t nMax) : bList(PyList_Check(obj)) {
        if (!bList) Add(obj);
        // The size is asked anew each time: script code may run when an error is set.
        for (Py_ssize_t i = 0; bList && i < nMax && i < PyList_GET_SIZE(obj); ++i) {
            if (PyErr_Occurred()) return;
            PyObject* value = PyList_GET_ITEM(obj, i);
            if (!value) {  // an empty slot of a list that a read gave
                items.emplace_back();
                continue;
            }
            Py_INCREF(value);
            const std::unique_ptr<PyObject, void (*)(PyObject*)> held(
                value, [](PyObject* p) { Py_DECREF(p); });
            Add(value);
        }
    }
};

int CDBDriver::SetTagValue(LPCTSTR tags, PyObject* tagValues) {
    // Asked again with the session held still; now it saves encoding in vain.
    if (!(m_pDBCore->m_nRights & kRightWrite)) return kWriteForbidden;
    const auto nNames = std::count(tags, tags + std::strlen(tags), ',') + 1;
    const SEncoded values(tagValues, static_cast<Py_ssize_t>(nNames));
    if (PyErr_Occurred()) return kWriteUnencodable;
    bool bOverflow = false;
    const int nResult = WriteValues(tags, values, bOverflow);
    if (bOverflow) {
        PyErr_SetString(PyExc_OverflowError, "Python int too large to convert to C long");
    }
    return nResult;
}

// Request: 'g', number of values (2), then for each driver id (2), tag id (2) and the value with
// its type code. There is no reply. bOverflow: an int outside 32 bits was among the encoded values.
int CDBDriver::WriteValues(LPCTSTR tags, const SEncoded& values, bool& bOverflow) {
    COperation operation(*m_pDBCore, m_pSession);
    if (!(m_pDBCore->m_nRights & kRightWrite)) return kWriteForbidden;
    std::vector<STag*> reqTags;
    if (!operation || !CheckTagId(tags, reqTags)) return kWriteFailed;
    if (reqTags.empty()) return kWriteDone;
    const bool bSingle = reqTags.size() == 1;
    if (bSingle == values.bList || (bSingle && !reqTags[0])) return kWriteUnencodable;
    if (values.items.size() < reqTags.size()) return kWriteUnencodable;

    BYTE request[kMaxWriteBytes];
    CByteWriter writer(request, sizeof request);
    writer.WriteU8(kReqWrite);
    writer.WriteU16(0);
    WORD nValues = 0;
    for (size_t i = 0; i < reqTags.size(); ++i) {
        if (!reqTags[i]) continue;  // consumes its value
        const SEncoded::SItem& item = values.items[i];
        if (item.strBytes.empty()) return kWriteUnencodable;
        if (item.bOverflow) bOverflow = true;
        writer.WriteU16(m_drvId);
        writer.WriteU16(reqTags[i]->id);
        writer.WriteBytes(item.strBytes.data(), item.strBytes.size());
        ++nValues;
    }
    writer.PatchU16(1, nValues);
    if (writer.Failed()) return kWriteUnencodable;
    const int nSize = static_cast<int>(writer.Size());
    return m_pDBCore->m_reqSock._Send(request, nSize, 0) == nSize ? kWriteDone : kWriteFailed;
}

bool CDBDriver::ObjToBuf(PyObject* objValue, BYTE* buf, UINT& len) {
    CByteWriter writer(buf + len, kMaxWriteBytes - len);
    if (PyUnicode_Check(objValue)) {
        Py_ssize_t nText = 0;
        const char* szText = PyUnicode_AsUTF8AndSize(objValue, &nText);
        if (!szText) {  // no UTF-8 form: a lone surrogate; a want of memory stays an error
            if (PyErr_ExceptionMatches(PyExc_UnicodeError)) PyErr_Clear();
            return false;
        }
        // The wire ends a text at its first zero byte.
        if (std::memchr(szText, 0, static_cast<size_t>(nText))) return false;
        writer.WriteU16(VT_STR);
        writer.WriteText(szText, static_cast<size_t>(nText));
    } else if (PyBool_Check(objValue)) {
        writer.WriteU16(VT_BOOL);
        writer.WriteU8(objValue == Py_True ? 1 : 0);
    } else if (PyLong_Check(objValue)) {
        int nOverflow = 0;
        long n = PyLong_AsLongAndOverflow(objValue, &nOverflow);
        if (nOverflow || n < INT32_MIN || n > INT32_MAX) {
            n = -1;
            nOverflow = 1;
        }
        writer.WriteU16(VT_I4);
        writer.WriteU32(static_cast<DWORD>(n));
        if (nOverflow && !writer.Failed()) {
            PyErr_SetString(PyExc_OverflowError, "Python int too large to convert to C long");
        }
    } else if (PyFloat_Check(objValue)) {
        writer.WriteU16(VT_R8);
        writer.WriteF64(PyFloat_AS_DOUBLE(objValue));
    } else {
        return false;
    }
    if (writer.Failed()) return false;
    len += static_cast<UINT>(writer.Size());
    return true;
}

// ---- Changes ------------------------------------------------------------------------------------

int CDBDriver::OnDBNotify(DWORD tagId, const BYTE* pBuf, size_t nLen, CNotifyCall& call) {
    if (tagId >= m_tags.size()) return kUnusableFrame;
    STag& tag = m_tags[tagId];
    // Without a type code only a tag whose type is known can be decoded.
    if (tag.value.vt == VT_EMPTY || tag.value.vt == VT_NULL) return kUnusableFrame;
    const size_t nUsed = tag.value.FromBuffer(pBuf, nLen, false);
    if (nUsed == 0 || nUsed == XVariant::kUndecodable) return kUnusableFrame;
    PyObject* fn = m_tagNotifyFn;
    if (fn) call.SetTagChange(fn, m_strDriver, tag.strTag, tag.value);
    return static_cast<int>(nUsed);
}
