#include "uts_stgqueries.h"

#include <chrono>
#include <cstdio>

#include "sutl_assert.h"
#include "sutl_frame.h"
#include "sutl_netorder.h"
#include "sutl_tcpsocket.h"

namespace {

constexpr sutl_AssertSite SITE_EXCESS = {"uts_stgqueries.cpp", 31};

constexpr std::chrono::seconds FINISH_TIME_MAX(10);
constexpr int ENCODED_BYTES = 4096;  // of hits that are encoded before they are appended to the reply

}  // namespace

suts_StgQueryEngine::suts_StgQueryEngine(suts_Stager* stager, suts_tsspec* spec, int port1, int port2,
                                         long replyBytesMax)
    : service_(std::make_shared<suts_StgQueryService>(stager, *spec, replyBytesMax)) {
    service_->Listen(static_cast<unsigned short>(port1), static_cast<unsigned short>(port2));
    auto handle = std::make_unique<std::shared_ptr<suts_StgQueryService>>(service_);
    sutl_Thread thread;
    if (!thread.Start(suts_StgRunQueries, handle.get(), "TQry")) {
        perror("ERROR, query thread could not be started: ");
        return;
    }
    hasThread_ = true;
    static_cast<void>(handle.release());  // the thread's now
    thread.Detach();
}

suts_StgQueryEngine::~suts_StgQueryEngine() { service_->Close(); }

void suts_StgQueryEngine::Finish() {
    if (hasThread_) service_->Finish();
}

void* suts_StgRunQueries(void* service) {
    std::unique_ptr<std::shared_ptr<suts_StgQueryService>> const own(
        static_cast<std::shared_ptr<suts_StgQueryService>*>(service));
    (*own)->Run();
    return nullptr;
}

suts_StgQueryService::suts_StgQueryService(suts_Stager* stager, suts_tsspec const& spec, long replyBytesMax)
    : replyBytesMax_(replyBytesMax),
      keyStrings_(spec.HasKeyField() ? suts_StringFields(spec, 0, 1) : 0),
      valueStrings_(spec.HasKeyField() ? suts_StringFields(spec, 1, spec.fieldCount) : 0),
      stager_(stager),
      hits_(HITS_PER_BLOCK) {
    spec_.CopyFrom(spec);
}

void suts_StgQueryService::Close() {
    closed_.store(true);
    // The listeners are shut, not closed: the thread may be about to use their numbers. They are closed with the
    // service.
    endpoint_.StopListening();
    sutl_MutexLock lock(gate_);
    stager_ = nullptr;
}

void suts_StgQueryService::Finish() {
    Close();
    auto const deadline = std::chrono::steady_clock::now() + FINISH_TIME_MAX;
    sutl_MutexLock lock(threadMutex_);
    if (serves_) sutl_TakeNoMore(endpoint_.FirstConnection());
    while (!ended_ && threadEnded_.WaitBefore(deadline, threadMutex_)) continue;
}

void suts_StgQueryService::Run() {
    while (endpoint_.AcceptPair(&closed_)) {
        if (BeginConversation()) {
            ServeClient();
            EndConversation();
        }
        endpoint_.CloseConnections();
    }
    endpoint_.CloseConnections();
    sutl_MutexLock lock(threadMutex_);
    ended_ = true;
    threadEnded_.Signal();
}

// False when the service was closed before Finish could know of this conversation.
bool suts_StgQueryService::BeginConversation() {
    sutl_MutexLock lock(threadMutex_);
    serves_ = !closed_.load();
    return serves_;
}

void suts_StgQueryService::EndConversation() {
    sutl_MutexLock lock(threadMutex_);
    serves_ = false;
}

void suts_StgQueryService::ServeClient() {
    for (;;) {
        switch (sutl_ReceiveFrame(endpoint_.FirstConnection(), field_, &closed_)) {
            case FRAME_STREAM_ENDED:
            case FRAME_BROKEN:
                return;
            case FRAME_TERMINATION:
                // It stops nothing here; the words are those of the data port.
                if (closed_.load()) return;
                fputs("Received Termination,aborting\n", stderr);
                break;
            case FRAME_READY:
                if (!ServeRequest()) return;
                break;
        }
    }
}

// Serves the request in the field. False when the conversation is over.
bool suts_StgQueryService::ServeRequest() {
    if (closed_.load()) return false;
    // Other types are ignored, however short or long they are.
    if (field_.Count() < SUTS_QUERY_TYPE_BYTES) return true;
    unsigned int type;
    field_.GetNext4Byte(&type, 1);
    if (type != SUTS_QUERY_RANGE) return true;

    Request request = {};
    if (spec_.HasKeyField()) {
        if (!DecodeRequest(request)) {
            fputs("ERROR, query ends inside its fields, not answered\n", stderr);
            return true;
        }
        if (field_.Count() != 0) RefuseExcess();
    }
    bool goOn = true;
    switch (Search(request)) {
        case SEARCHED:
            BuildReply(request);
            // A reply that cannot be sent is reported, and ends with itself.
            sutl_SendFrame(endpoint_.SecondConnection(), field_, &closed_);
            break;
        case REPLY_TOO_LONG:
            fprintf(stderr, "ERROR, query refused: its reply would pass %ld bytes\n", replyBytesMax_);
            goOn = false;
            break;
        case GATE_CLOSED:
            goOn = false;
            break;
    }
    DropHits();
    request.key.Clear();
    return goOn;
}

// Excess data are fatal for the server, but no longer for one that has ended its query service.
void suts_StgQueryService::RefuseExcess() {
    sutl_MutexLock gate(gate_);
    sutl_assertfunc(stager_ == nullptr, SITE_EXCESS.file, SITE_EXCESS.line, " WARNING: Excess data in query !\n",
                    nullptr);
}

// False when the request ends too early; nothing is to be released then.
bool suts_StgQueryService::DecodeRequest(Request& request) {
    request.keyCanMatch = true;
    if (field_.Count() < 2 * SUTS_NUMBER8_BYTES) return false;
    field_.GetNext8Byte(&request.timeFrom, 1);
    field_.GetNext8Byte(&request.timeTo, 1);
    if (spec_.Type(0) == SUTS_STRING64) return DecodeStringKey(request);
    suts_FieldFault fault;
    request.key = suts_TranslateSpecField(field_, spec_, 0, &fault);
    return fault == FIELD_WHOLE;
}

// Clients send a string key with its terminating NUL or without.
bool suts_StgQueryService::DecodeStringKey(Request& request) {
    if (field_.Count() < SUTS_STRING_LENGTH_BYTES) return false;
    unsigned int length;
    field_.GetNext4Byte(&length, 1);
    if (length > static_cast<unsigned int>(field_.Count())) return false;
    auto textBytes = static_cast<int>(length);
    keyText_.Reset();
    unsigned char* const text = keyText_.Grow(textBytes + 1);
    field_.GetNextBytes(text, length);
    if (textBytes > 0 && text[textBytes - 1] == 0) --textBytes;
    text[textBytes] = 0;
    request.keyCanMatch = memchr(text, 0, static_cast<std::size_t>(textBytes)) == nullptr;
    request.key.Assign(text, textBytes + 1);
    return true;
}

// Fills the hits with copies of what matches.
suts_StgQueryService::SearchResult suts_StgQueryService::Search(Request const& request) {
    if (!request.keyCanMatch) return SEARCHED;
    sutl_MutexLock gate(gate_);
    if (stager_ == nullptr) return GATE_CLOSED;
    suts_StgOrganizer& organizer = stager_->Organizer();
    suts_StgKeyNode* node = nullptr;
    {
        sutl_ReadLock lock(organizer.Keys().lock);
        node = organizer.Keys().Find(request.key);
    }
    return node == nullptr ? SEARCHED : SearchSet(request, node->set, organizer);
}

suts_StgQueryService::SearchResult suts_StgQueryService::SearchSet(Request const& request, suts_StgBucketSet& set,
                                                                   suts_StgOrganizer const& organizer) {
    long const headBytes = request.key.length +
                           static_cast<long>(keyStrings_ + valueStrings_) * SUTS_STRING_LENGTH_BYTES +
                           SUTS_NUMBER8_BYTES;
    sutl_ReadLock lock(set.lock);
    // Before the first advance the difference wraps, and nothing is searched.
    unsigned long bucket = organizer.Current();
    while (organizer.Current() - suts_StgBucketSet::BUCKETS < bucket) {
        bool const mayHold = organizer.MayHold(set, bucket, request.timeFrom, request.timeTo);
        suts_StgPosition at = mayHold ? set.Slot(bucket % suts_StgBucketSet::BUCKETS).newest : suts_StgPosition();
        for (; !at.IsEmpty(); at.StepBack()) {
            suts_StgBucketRecord const& record = at.Record();
            auto const time = static_cast<unsigned long>(record.time);
            if (time < request.timeFrom || time > request.timeTo) continue;
            replyBytes_ += headBytes + record.value.length;
            if (replyBytes_ > replyBytesMax_) return REPLY_TOO_LONG;
            Hit& hit = hits_.AddfrontInPlace();
            hit.time = time;
            suts_KeepBytes(hit.value, record.value, hitBytes_);
        }
        --bucket;
    }
    return SEARCHED;
}

void suts_StgQueryService::BuildReply(Request const& request) {
    field_.Reset();
    while (hits_.size > 0) {
        Hit const hit = hits_.Getend();
        AppendFields(request.key, 0, 1, keyStrings_);
        unsigned long const time = sutl_ToNetorder(hit.time);
        reply_.Append(&time, sizeof time);
        AppendFields(hit.value, 1, spec_.fieldCount, valueStrings_);
        if (reply_.Size() >= ENCODED_BYTES || hits_.size == 0) {
            field_.AppendBytes(reply_.Data(), static_cast<std::size_t>(reply_.Size()));
            reply_.Reset();
        }
    }
    field_.Seal();
}

// Appends the fields from first to last, exclusive, with so many strings among them, in wire form.
void suts_StgQueryService::AppendFields(sutl_RawBytefield const& stored, int first, int last, int strings) {
    int const before = reply_.Size();
    unsigned char* const begin = reply_.Grow(stored.length + strings * SUTS_STRING_LENGTH_BYTES);
    unsigned char const* const end = suts_EncodeFields(begin, stored, spec_, first, last);
    reply_.Shrink(before + static_cast<int>(end - begin));
}

void suts_StgQueryService::DropHits() {
    hits_.Discard();
    hitBytes_.Clear();
    replyBytes_ = 0;
}
