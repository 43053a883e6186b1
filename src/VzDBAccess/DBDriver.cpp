#include "VzDBAccess/DBDriver.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "ByteCursor.h"
#include "TagReplies.h"
#include "VzDBAccess/DBCore.h"
#include "VzDBAccess/KnownLists.h"
#include "vznetdef.h"

namespace {

constexpr size_t kLookupBytes = 768;   // a batch of names
constexpr size_t kLookupOverhead = 3;  // of each name: driver id and zero byte
constexpr size_t kMaxName = kLookupBytes - 1 - kLookupOverhead;
constexpr size_t kLookupReply = 4096;
constexpr size_t kSubscribeBytes = 2600;

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

// Takes the next name off a list's front: what stands between commas, without the spaces around it,
// which may be nothing. False when no name is left.
bool TakeName(std::string_view& list, std::string_view& name) {
    list.remove_prefix(std::min(list.find_first_not_of(','), list.size()));
    name = list.substr(0, list.find(','));
    list.remove_prefix(name.size());
    if (name.empty()) return false;
    name.remove_prefix(std::min(name.find_first_not_of(' '), name.size()));
    name = name.substr(0, name.find_last_not_of(' ') + 1);
    return true;
}

bool IsArray(const BYTE* pValue, size_t nLen) {
    CByteReader reader(pValue, nLen);
    return reader.ReadU16() == VT_ARRAY;
}

// The script object of a value, as ValueToObj tells.
inline PyObject* ObjectOf(const XVariant& value) {
    switch (value.vt) {
        case VT_I2:
            return PyLong_FromLong(value.iVal);
        case VT_I4:
        case VT_UI4:  // deliberate: read as signed, so 4294967295 gives -1
        case VT_INT:
        case VT_UINT:
            return PyLong_FromLong(value.lVal);
        case VT_R4:
            return PyFloat_FromDouble(static_cast<double>(value.fltVal));
        case VT_R8:
            return PyFloat_FromDouble(value.dblVal);
        case VT_STR:
            return value.pStrVal ? TextToObj(*value.pStrVal) : PyUnicode_FromString("");
        case VT_BOOL:
            return PyBool_FromLong(value.boolVal);
        case VT_I1:  // deliberate: read as unsigned, as VT_UI1
        case VT_UI1:
            return PyLong_FromLong(value.bVal);
        case VT_UI2:
            return PyLong_FromLong(value.uiVal);
        default:
            return nullptr;
    }
}

}  // namespace

// ---- Names --------------------------------------------------------------------------------------

CDBDriver::CDBDriver(CDBCore* pDBCore, const CDBSession* pSession, WORD drvId,
                     const CString& strDriver)
    : m_drvId(drvId), m_strDriver(strDriver), m_pDBCore(pDBCore), m_pSession(pSession) {}

CDBDriver::~CDBDriver() = default;

void CDBDriver::SetTagCount(DWORD dwCount) {
    m_tags.resize(dwCount);
    WORD nId = 0;
    for (STag& tag : m_tags) tag.id = nId++;
}

void CDBDriver::SetCBFunc(PyObject* cbFunc) {
    PyObject* pNone = nullptr;
    m_tagNotifyFn.compare_exchange_strong(pNone, cbFunc);
}

WORD CDBDriver::GetTagId(LPCTSTR tagName) {
    if (!tagName || !*tagName || m_tags.empty()) return kNoTagId;
    const CString strName(tagName);
    const auto it = m_mapTagToId.find(strName);
    if (it != m_mapTagToId.end()) return it->second;
    WORD nId = kNoTagId;
    m_pDBCore->GetTagId(m_drvId, tagName, &nId);  // a lookup that failed leaves the id unknown
    if (STag* pTag = RecordOf(nId)) {
        std::lock_guard<std::mutex> data(m_pDBCore->m_dataLock);
        pTag->strTag = strName;
    }
    m_mapTagToId[strName] = nId;
    return nId;
}

// A batch of names to look up: 'L', then driver id (2), name and zero byte of each.
struct CDBDriver::SBatch {
    struct SName {
        std::string_view name;
        decltype(m_mapTagToId)::iterator itBehind;  // where the name would stand before
    };

    SBatch() { writer.WriteU8(kReqTagId); }
    void Restart() {
        writer = CByteWriter(request, sizeof request);
        writer.WriteU8(kReqTagId);
        names.clear();
    }
    bool Fits(std::string_view name) const {
        return name.size() + kLookupOverhead <= writer.Room();
    }
    void Add(WORD drvId, const SName& name) {
        writer.WriteU16(drvId);
        writer.WriteText(name.name.data(), name.name.size());
        names.push_back(name);
    }

    char request[kLookupBytes];
    CByteWriter writer{request, sizeof request};
    std::vector<SName> names;
};

bool CDBDriver::CheckTagId(LPCTSTR tags, std::vector<STag*>& reqTags) {
    SBatch batch;
    std::string_view list(tags);
    for (std::string_view name; TakeName(list, name);) {
        if (name.empty() || name.size() > kMaxName) {
            reqTags.push_back(nullptr);
            continue;
        }
        const auto it = m_mapTagToId.lower_bound(name);
        if (it != m_mapTagToId.end() && std::string_view(it->first) == name) {
            reqTags.push_back(RecordOf(it->second));
            continue;
        }
        if (!batch.Fits(name)) {
            if (!ReqBatchGetPoss(batch, reqTags)) return false;
            batch.Restart();
        }
        batch.Add(m_drvId, {name, it});
    }
    return batch.names.empty() || ReqBatchGetPoss(batch, reqTags);
}

// Reply: 'L', then tag id (2) and two bytes that mean nothing here, for each name.
bool CDBDriver::ReqBatchGetPoss(SBatch& batch, std::vector<STag*>& reqTags) {
    char reply[kLookupReply];
    const size_t nReply = 1 + 4 * batch.names.size();
    if (!m_pDBCore->RequestAll(batch.request, batch.writer.Size(), nReply, reply)) return false;
    CByteReader reader(reply, nReply);
    if (reader.ReadU8() != kReqTagId) return false;
    // Records get their names first of all: a name that is in the map is never looked up again.
    CByteReader ids = reader;
    {
        std::lock_guard<std::mutex> data(m_pDBCore->m_dataLock);
        for (const SBatch::SName& name : batch.names) {
            STag* pTag = RecordOf(ids.ReadU16());
            if (pTag) pTag->strTag.assign(name.name);
            ids.Take(2);
        }
    }
    for (const SBatch::SName& name : batch.names) {
        const WORD nId = reader.ReadU16();
        reader.Take(2);
        m_mapTagToId.insert_or_assign(name.itBehind, CString(std::string(name.name)), nId);
        reqTags.push_back(RecordOf(nId));
    }
    return true;
}

// The list of an operation: one that is known, or else resolved. Null when an exchange failed.
// Lists are kept when all their names were cached before the call: only then does the same text
// give the same list again. And only when the whole text has a GB2312 form: else it is converted
// each time, and each time the error is told.
CDBDriver::STagList* CDBDriver::Resolve(const STagNames& names, STagList& resolved) {
    if (!names.bScript) return CheckTagId(names.szText, resolved.tags) ? &resolved : nullptr;
    const std::string_view text(names.szText);
    if (m_pKnownLists) {
        if (STagList* pKnown = m_pKnownLists->Find(text)) return pKnown;
    }
    const CUTF82T strTags(names.szText);
    const size_t nCached = m_mapTagToId.size();
    if (!CheckTagId(strTags, resolved.tags)) return nullptr;
    if (m_mapTagToId.size() == nCached && std::string_view(CT2UTF8(strTags)) == text) {
        if (!m_pKnownLists) m_pKnownLists = std::make_unique<CKnownLists>(m_tags.size());
        m_pKnownLists->Add(text, resolved.tags);
    }
    return &resolved;
}

// ---- Subscribe and read -------------------------------------------------------------------------

// The records that a reply brings the values of, in order.
class CDBDriver::CReplyValues {
  public:
    // bSubscribe: the values are those of a subscription.
    CReplyValues(CDBDriver& driver, STag* const* ppAsked, size_t nAsked, bool bSubscribe)
        : m_driver(driver),
          m_ppNext(ppAsked),
          m_ppEnd(ppAsked + nAsked),
          m_bSubscribe(bSubscribe) {}

    bool Complete() const { return m_ppNext == m_ppEnd; }

    // Stores the values of one chunk into the records whose turn it is. False for a value cut by
    // the chunk's end and for more values than asked.
    // Not inlined: among its caller's variables those of this loop would not stay in registers.
    [[gnu::noinline]] bool Store(const BYTE* pChunk, size_t nChunk) {
        std::lock_guard<std::mutex> data(m_driver.m_pDBCore->m_dataLock);
        STag* const* ppTag = m_ppNext;
        STag* const* const ppEnd = m_ppEnd;
        const bool bSubscribe = m_bSubscribe;
        for (size_t nUsed; nChunk > 0; pChunk += nUsed, nChunk -= nUsed) {
            if (ppTag == ppEnd) return false;
            STag& tag = **ppTag++;
            const bool bArray = IsArray(pChunk, nChunk);
            nUsed = tag.value.FromBuffer(pChunk, nChunk, true);
            if (nUsed == XVariant::kUndecodable) return false;
            if (bSubscribe) m_driver.SetSubscribed(tag);
            // The size of an array's elements is not part of its value's size, so nothing can
            // follow it.
            if (bArray) break;
        }
        m_ppNext = ppTag;
        return true;
    }

  private:
    CDBDriver& m_driver;
    STag* const* m_ppNext;
    STag* const* const m_ppEnd;
    const bool m_bSubscribe;
};

// Request: 'b', count (2), then for each tag driver id (2), tag id (2), 0.
bool CDBDriver::_ConnectTag(const STagNames& names) {
    COperation operation(*m_pDBCore, m_pSession);
    STagList resolved;
    const STagList* pList = operation ? Resolve(names, resolved) : nullptr;
    if (!pList) return false;
    BYTE request[kSubscribeBytes];
    CByteWriter writer(request, sizeof request);
    writer.WriteU8(kReqSubscribe);
    writer.WriteU16(0);
    STag* asked[kMaxSubscribed];
    size_t nAsked = 0;
    for (STag* pTag : pList->tags) {
        if (nAsked == kMaxSubscribed) break;
        if (!pTag || pTag->bSubscribe) continue;
        const STagItem item = {m_drvId, pTag->id, 0};
        writer.WriteU16(item.drvId);
        writer.WriteU16(item.dpos);
        writer.WriteU8(item.item);
        asked[nAsked++] = pTag;
    }
    if (nAsked == 0) return true;
    writer.PatchU16(1, static_cast<WORD>(nAsked));
    CReqTimeSock& sock = m_pDBCore->m_reqSock;
    CReplyValues values(*this, asked, nAsked, true);
    return sock.SendAll(request, static_cast<int>(writer.Size()), 0) &&
           CReplyChunks<CReplyValues>(sock, values).ReceiveSubscribed();
}

bool CDBDriver::_GetTagValue(LPCTSTR tags, std::vector<STag*>& reqTags) {
    if (!CheckTagId(tags, reqTags)) return false;
    STagList list;
    list.tags = reqTags;
    return Refresh(list);
}

// Those that are not subscribed, at most 1023 of them, are read from the server.
// Request: 'H', count (2), then for each tag driver id (2), tag id (2).
void CDBDriver::PlanRead(STagList& list) {
    list.nSubscribed = STagList::kNotPlanned;
    list.asked.clear();
    for (STag* pTag : list.tags) {
        if (list.asked.size() == kMaxRead) break;
        if (pTag && !pTag->bSubscribe) list.asked.push_back(pTag);
    }
    list.strRequest.resize(ReadBytes(list.asked.size()));
    CByteWriter writer(&list.strRequest[0], list.strRequest.size());
    writer.WriteU8(kReqRead);
    writer.WriteU16(static_cast<WORD>(list.asked.size()));
    for (const STag* pTag : list.asked) {
        writer.WriteU16(m_drvId);
        writer.WriteU16(pTag->id);
    }
    list.nSubscribed = m_nSubscribed;
}

bool CDBDriver::Refresh(STagList& list) {
    if (list.nSubscribed != m_nSubscribed) PlanRead(list);
    if (list.asked.empty()) return true;
    CReqTimeSock& sock = m_pDBCore->m_reqSock;
    CReplyValues values(*this, list.asked.data(), list.asked.size(), false);
    const int nSize = static_cast<int>(list.strRequest.size());
    return sock.SendAll(list.strRequest.data(), nSize, 0) &&
           CReplyChunks<CReplyValues>(sock, values).ReceiveRead();
}

// What a read found. Copied, so that the objects are made without a lock: making one may run a
// collection of garbage, and with it any script code.
struct CDBDriver::SCopies {
    size_t nNames = 0;
    bool bKnown = false;            // the name, when there is one
    XVariant single;                // its value
    std::vector<XVariant> several;  // of more names than one; empty for an unknown one
};

bool CDBDriver::CopyValues(const STagNames& names, SCopies& copies) {
    COperation operation(*m_pDBCore, m_pSession);
    STagList resolved;
    STagList* pList = operation ? Resolve(names, resolved) : nullptr;
    if (!pList || !Refresh(*pList)) return false;
    const std::vector<STag*>& tags = pList->tags;
    copies.nNames = tags.size();
    if (copies.nNames > 1) copies.several.resize(copies.nNames);
    std::lock_guard<std::mutex> data(m_pDBCore->m_dataLock);
    if (copies.nNames == 1) {
        const STag* pTag = tags.front();
        copies.bKnown = pTag != nullptr;
        if (pTag) copies.single = pTag->value;
        return true;
    }
    XVariant* pCopy = copies.several.data();
    for (const STag* pTag : tags) {
        if (pTag) pCopy->CopyWhole(pTag->value);
        ++pCopy;
    }
    return true;
}

PyObject* CDBDriver::GetTagValue(const STagNames& names) {
    SCopies copies;
    if (!CopyValues(names, copies) || copies.nNames == 0) Py_RETURN_NONE;
    if (copies.nNames == 1) {
        if (!copies.bKnown) Py_RETURN_NONE;
        return ValueToObj(&copies.single);
    }
    PyObject* list = PyList_New(static_cast<Py_ssize_t>(copies.nNames));
    if (!list) return nullptr;
    Py_ssize_t nSlot = 0;
    for (const XVariant& copy : copies.several) {
        PyObject* value = ObjectOf(copy);
        // Deliberate: a value without an object leaves its slot empty, as an unknown name does.
        if (!value && PyErr_Occurred()) {
            Py_DECREF(list);
            return nullptr;
        }
        PyList_SET_ITEM(list, nSlot++, value);
    }
    return list;
}

PyObject* CDBDriver::ValueToObj(const XVariant* pValue) { return ObjectOf(*pValue); }

// ---- Write --------------------------------------------------------------------------------------

// What the script gave, encoded before anything is sent or locked.
struct CDBDriver::SEncoded {
    struct SItem {
        size_t nEnd;  // of its bytes; where the one before ends when it cannot be encoded
        bool bOverflow;
    };
    const bool bList;
    std::string strBytes;  // of all items
    std::vector<SItem> items;

    void Add(PyObject* obj) {
        BYTE buf[kMaxWriteBytes];
        UINT nLen = 0;
        ObjToBuf(obj, buf, nLen);
        const bool bOverflow = PyErr_Occurred() && PyErr_ExceptionMatches(PyExc_OverflowError);
        if (bOverflow) PyErr_Clear();
        strBytes.append(buf, buf + nLen);
        items.push_back({strBytes.size(), bOverflow});
    }

    // Encodes a single value, or up to nMax items of a list.
    SEncoded(PyObject* obj, Py_ssize_t nMax) : bList(PyList_Check(obj)) {
        if (!bList) {
            Add(obj);
            return;
        }
        items.reserve(static_cast<size_t>(std::min(nMax, PyList_GET_SIZE(obj))));
        // The size is asked anew each time: script code may run when an error is set.
        for (Py_ssize_t i = 0; i < nMax && i < PyList_GET_SIZE(obj); ++i) {
            if (PyErr_Occurred()) return;
            PyObject* value = PyList_GET_ITEM(obj, i);
            if (!value) {  // an empty slot of a list that a read gave
                items.push_back({strBytes.size(), false});
                continue;
            }
            Py_INCREF(value);
            const std::unique_ptr<PyObject, void (*)(PyObject*)> held(
                value, [](PyObject* p) { Py_DECREF(p); });
            Add(value);
        }
    }
};

int CDBDriver::SetTagValue(const STagNames& names, PyObject* tagValues) {
    // Asked again with the session held still; now it saves encoding in vain.
    if (!(m_pDBCore->m_nRights & kRightWrite)) return kWriteForbidden;
    const std::string_view text(names.szText);
    const auto nNames = std::count(text.begin(), text.end(), ',') + 1;  // at most
    const SEncoded values(tagValues, static_cast<Py_ssize_t>(nNames));
    if (PyErr_Occurred()) return kWriteUnencodable;
    bool bOverflow = false;
    const int nResult = WriteValues(names, values, bOverflow);
    if (bOverflow) {
        PyErr_SetString(PyExc_OverflowError, "Python int too large to convert to C long");
    }
    return nResult;
}

// Request: 'g', number of values (2), then for each driver id (2), tag id (2) and the value with
// its type code. There is no reply. bOverflow: an int outside 32 bits was among the encoded values.
int CDBDriver::WriteValues(const STagNames& names, const SEncoded& values, bool& bOverflow) {
    COperation operation(*m_pDBCore, m_pSession);
    if (!(m_pDBCore->m_nRights & kRightWrite)) return kWriteForbidden;
    STagList resolved;
    const STagList* pList = operation ? Resolve(names, resolved) : nullptr;
    if (!pList) return kWriteFailed;
    const std::vector<STag*>& tags = pList->tags;
    if (tags.empty()) return kWriteDone;
    const bool bSingle = tags.size() == 1;
    if (bSingle == values.bList || (bSingle && !tags[0])) return kWriteUnencodable;
    if (values.items.size() < tags.size()) return kWriteUnencodable;

    BYTE request[kMaxWriteBytes];
    CByteWriter writer(request, sizeof request);
    writer.WriteU8(kReqWrite);
    writer.WriteU16(0);
    WORD nValues = 0;
    size_t nEnd = 0;
    for (size_t i = 0; i < tags.size(); ++i) {
        const size_t nStart = nEnd;
        nEnd = values.items[i].nEnd;
        if (!tags[i]) continue;  // consumes its value
        if (nEnd == nStart) return kWriteUnencodable;
        if (values.items[i].bOverflow) bOverflow = true;
        writer.WriteU16(m_drvId);
        writer.WriteU16(tags[i]->id);
        writer.WriteBytes(values.strBytes.data() + nStart, nEnd - nStart);
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
