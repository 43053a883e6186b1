// One driver of a session: its tags, their identifiers and their values.
#pragma once

#include <Python.h>

#include <atomic>
#include <map>
#include <memory>
#include <string_view>
#include <vector>

#include "VzDBAccess/DBSession.h"
#include "VzDBAccess/NotifyCall.h"
#include "VzDefine.h"
#include "nonwin/XVariant.h"
#include "nonwin/cstring.h"

class CDBCore;

// A comma-separated list of names of tags: GB2312 text, or the text that a script gave. Only points
// at it.
struct STagNames {
    STagNames(LPCTSTR szGb2312) : szText(szGb2312) {}
    static STagNames OfScript(LPCSTR szUtf8) { return STagNames(szUtf8, true); }

    const char* szText;
    bool bScript = false;  // in UTF-8; its lists are kept

  private:
    STagNames(LPCSTR sz, bool b) : szText(sz), bScript(b) {}
};

// The id of a name that did not resolve, and the result of a change that cannot be used.
constexpr WORD kNoTagId = 0xFFFF;

// Results of SetTagValue.
constexpr int kWriteDone = 0;
constexpr int kWriteForbidden = -1;    // the user may not write
constexpr int kWriteFailed = -2;       // names not resolved, or the request not sent
constexpr int kWriteUnencodable = -3;  // a value that cannot be encoded, or does not fit

// Bytes of a write request.
constexpr size_t kMaxWriteBytes = 2048;

// Ownership: owned by the core's driver map; after the session's end by the session.
// Threads:   script threads, one at a time, except OnDBNotify: receive thread only. _ConnectTag,
//            GetTagValue and SetTagValue take the core's operation lock, CheckTagId and
//            _GetTagValue expect it held. A record's value and name are written and copied under
//            the core's data lock; the table itself never changes its size after SetTagCount.
// Python:    the callable is borrowed. GetTagValue, SetTagValue, ValueToObj and ObjToBuf need the
//            interpreter lock; no interpreter object is made while a lock of the core is held.
class CDBDriver {
  public:
    class CKnownLists;

    // A tag's record. Its id is always its index.
    struct STag {
        XVariant value;  // last known value; guarded by the core's data lock
        CString strTag;  // the name it was last resolved by; guarded by the data lock
        WORD id = 0;
        bool bSubscribe = false;  // then value is kept current and reads do not ask the server
    };

    // pDBCore and pSession outlive the driver's use; strDriver: GB2312.
    CDBDriver(CDBCore* pDBCore, const CDBSession* pSession, WORD drvId, const CString& strDriver);
    ~CDBDriver();
    CDBDriver(const CDBDriver&) = delete;
    CDBDriver& operator=(const CDBDriver&) = delete;

    // Sizes the tag table. Once, before anyone else sees the driver.
    void SetTagCount(DWORD dwCount);
    size_t TagCount() const { return m_tags.size(); }

    // Stores the callback of tag changes if none is stored yet; the first one stays for good.
    void SetCBFunc(PyObject* cbFunc);

    // The id of one name (GB2312), from the cache or the server; kNoTagId when it did not resolve,
    // which is cached too.
    WORD GetTagId(LPCTSTR tagName);

    // Resolves a comma-separated list of names (GB2312): appends to reqTags one entry per name,
    // null for one that did not resolve. Cached names are appended when they are met, others when
    // their batch is answered, so a mixed list comes back in another order; deliberate. False when
    // an exchange with the server failed; what was appended and cached before stays.
    bool CheckTagId(LPCTSTR tags, std::vector<STag*>& reqTags);

    // Subscribes the named tags that are not subscribed yet, at most 519 of them, and stores their
    // values. False when an exchange failed; what was stored before stays.
    bool _ConnectTag(const STagNames& names);

    // Resolves the names and reads those that are not subscribed, at most 1023 of them, from the
    // server. False when an exchange failed.
    bool _GetTagValue(LPCTSTR tags, std::vector<STag*>& reqTags);

    // The script's read. One name: the value's object, null without an error when its type has
    // none, None when the name is unknown. Several: a list in the order of CheckTagId, whose slots
    // of unknown names are empty. None when an exchange failed or there is no name. New reference;
    // null with an error set when memory ran out.
    PyObject* GetTagValue(const STagNames& names);

    // The script's write: one name takes a value, several take a list. Returns kWriteDone and the
    // failures above. A Python error may be set besides: OverflowError, when an int outside 32 bits
    // was encoded as -1.
    int SetTagValue(const STagNames& names, PyObject* tagValues);

    // A changed value came: nLen bytes at pBuf, without type code. Stores it and, when a callback
    // is set, fills call. Returns the bytes consumed, or kUnusableFrame, with the record
    // unchanged. The core's data lock is held.
    int OnDBNotify(DWORD tagId, const BYTE* pBuf, size_t nLen, CNotifyCall& call);

    // The script object of a value: int, float, bool or str. Text is taken as UTF-8. Null without
    // an error for a type that has none. New reference.
    static PyObject* ValueToObj(const XVariant* pValue);

    // Encodes a script object with its type code at offset len of buf, which has kMaxWriteBytes,
    // and advances len. str, bool, int and float and their subclasses can be encoded (bool has
    // none). False, with len untouched, when it cannot be encoded or does not fit; an error is set
    // only when memory ran out. An int outside 32 bits is encoded as -1 and sets OverflowError.
    static bool ObjToBuf(PyObject* objValue, BYTE* buf, UINT& len);

    std::atomic<PyObject*> m_tagNotifyFn{nullptr};  // borrowed
    WORD m_drvId;
    CString m_strDriver;
    std::vector<STag> m_tags;
    // Names that were asked. Deliberate: those that did not resolve too, so they are asked once.
    struct SByBytes {
        using is_transparent = void;
        bool operator()(std::string_view a, std::string_view b) const { return a < b; }
    };
    std::map<CString, WORD, SByBytes> m_mapTagToId;
    CDBCore* m_pDBCore;

  private:
    struct SBatch;
    struct STagList;
    struct SCopies;
    struct SEncoded;
    class CReplyValues;

    void SetSubscribed(STag& tag) {
        if (!tag.bSubscribe) ++m_nSubscribed;
        tag.bSubscribe = true;
    }
    STag* RecordOf(WORD nId) { return nId < m_tags.size() ? &m_tags[nId] : nullptr; }
    STagList* Resolve(const STagNames& names, STagList& resolved);
    bool ReqBatchGetPoss(SBatch& batch, std::vector<STag*>& reqTags);
    void PlanRead(STagList& list);
    bool Refresh(STagList& list);
    bool CopyValues(const STagNames& names, SCopies& copies);
    int WriteValues(const STagNames& names, const SEncoded& values, bool& bOverflow);

    const CDBSession* m_pSession;
    // How many tags are subscribed.
    size_t m_nSubscribed = 0;
    std::unique_ptr<CKnownLists> m_pKnownLists;  // made for the first one
};
