#include "sockbuf/SockBufVect.h"

#include <new>

using Base = BufSVectorT<unsigned, SockBuf_reg>;

Base::BufSVectorT(unsigned count, unsigned size)
    : index_(0, count != 0 ? count : kPoolStep), regSize_(size) {
  try {
    pool_.reserve(count != 0 ? count : kPoolStep);
  } catch (std::bad_alloc const&) {
    return;
  }
  ok_ = size != 0 && index_.get_capacity() != 0 ? 1 : 0;
}

Base::~BufSVectorT() {
  for (unsigned pos = 1; pos <= index_.get_nitens(); ++pos) {
    SockBuf_reg* reg = nullptr;
    index_.get_item(pos, nullptr, &reg);
    delete reg;
  }
  for (SockBuf_reg* reg : pool_)
    delete reg;
}

void Base::Pool(SockBuf_reg* reg) {
  try {
    if (pool_.size() == pool_.capacity())
      pool_.reserve(pool_.size() + kPoolStep);
    pool_.push_back(reg);
  } catch (std::bad_alloc const&) {
    delete reg;  // the pool refused it
  }
}

unsigned Base::append(unsigned key) {
  if (!ok_ || index_.search(key, nullptr) != 0)
    return 0;
  SockBuf_reg* reg = nullptr;
  if (!pool_.empty()) {
    reg = pool_.back();
    pool_.pop_back();
  } else {
    reg = new (std::nothrow) SockBuf_reg(regSize_, 0);
    if (!reg)
      return 0;
    if (!reg->IsOk()) {
      delete reg;
      return 0;
    }
  }
  unsigned const pos = index_.insert(key, reg);
  if (pos == 0) {
    Pool(reg);
    return 0;
  }
  // The register knows its key, so a walk by media id can name it.
  reg->SetId(key);
  return pos;
}

int Base::erase(unsigned key) {
  SockBuf_reg* reg = nullptr;
  unsigned const pos = index_.search(key, &reg);
  if (pos == 0)
    return 0;
  reg->reset();
  index_.eraseIndex(pos, 0);
  Pool(reg);
  return 1;
}

void Base::reset() {
  while (index_.get_nitens() != 0) {
    SockBuf_reg* reg = nullptr;
    index_.get_item(index_.get_nitens(), nullptr, &reg);
    reg->reset();
    index_.eraseIndex(index_.get_nitens(), 0);
    Pool(reg);
  }
  cursor_ = 0;
}

SockBuf_reg* Base::search(unsigned key, unsigned* pos) {
  SockBuf_reg* reg = nullptr;
  unsigned const at = ok_ ? index_.search(key, &reg) : 0;
  if (pos)
    *pos = at;
  return at != 0 ? reg : nullptr;
}

SockBuf_reg* Base::get_elem(unsigned pos, unsigned* key) {
  unsigned k = keyNull_;
  SockBuf_reg* reg = nullptr;
  if (!ok_ || !index_.get_item(pos, &k, &reg)) {
    k = keyNull_;
    reg = nullptr;
  }
  if (key)
    *key = k;
  return reg;
}

SockBuf_reg* Base::first(unsigned* key, unsigned* pos) {
  cursor_ = 0;
  return next(key, pos);
}

SockBuf_reg* Base::next(unsigned* key, unsigned* pos) {
  if (cursor_ <= index_.get_nitens())
    ++cursor_;
  SockBuf_reg* reg = get_elem(cursor_, key);
  if (pos)
    *pos = reg ? cursor_ : 0;
  return reg;
}

void Base::HoldWakes(int on) {
  for (unsigned pos = 1; pos <= index_.get_nitens(); ++pos)
    if (SockBuf_reg* reg = get_elem(pos, nullptr))
      reg->HoldWake(on);
}

SockBuf_reg* Base::Find(unsigned key) { return key != 0 ? search(key, nullptr) : nullptr; }

int Base::SaveDataKey(unsigned key, void* buf, unsigned len) {
  SockBuf_reg* reg = search(key, nullptr);
  return reg ? reg->SaveData(buf, len) : 0;
}

unsigned Base::SavePacketsKey(unsigned key, void const* buf, unsigned len) {
  SockBuf_reg* reg = search(key, nullptr);
  return reg ? reg->SavePackets(buf, len) : 0;
}

int Base::GetDataKey(unsigned key, void* buf, unsigned* pLen) {
  SockBuf_reg* reg = search(key, nullptr);
  return reg ? reg->GetData(buf, pLen) : 0;
}

int Base::SaveDataInd(unsigned pos, void* buf, unsigned len) {
  SockBuf_reg* reg = get_elem(pos, nullptr);
  return reg ? reg->SaveData(buf, len) : 0;
}

int Base::GetDataInd(unsigned pos, void* buf, unsigned* pLen) {
  SockBuf_reg* reg = get_elem(pos, nullptr);
  return reg ? reg->GetData(buf, pLen) : 0;
}

void* Base::GetBufPtrInd(unsigned pos) {
  SockBuf_reg* reg = get_elem(pos, nullptr);
  return reg ? reg->GetBufPtr() : nullptr;
}

unsigned Base::GetBytesLeftInd(unsigned pos) {
  SockBuf_reg* reg = get_elem(pos, nullptr);
  return reg ? reg->GetBytesLeft() : 0;
}

unsigned Base::GetBytesUsedInd(unsigned pos) {
  SockBuf_reg* reg = get_elem(pos, nullptr);
  return reg ? reg->GetBytesUsed() : 0;
}

int Base::IsEnableInd(unsigned pos) {
  SockBuf_reg* reg = get_elem(pos, nullptr);
  return reg ? reg->IsEnable() : 0;
}

int Base::SetEnableInd(unsigned pos, int on) {
  SockBuf_reg* reg = get_elem(pos, nullptr);
  return reg ? reg->SetEnable(on) : 0;
}

// --- SockBufVect ---------------------------------------------------------------

SockBufVect::SockBufVect(unsigned count, unsigned size) : Base(count, size) {}

int SockBufVect::SetOptions(unsigned key, unsigned a1, unsigned a2, unsigned idleSeconds, int defrag,
                            unsigned defragParam) {
  SockBuf_reg* reg = Find(key);
  if (!reg)
    return 0;
  reg->SetId(key);
  return reg->SetOptions(a1, a2, idleSeconds, defrag, defragParam);
}

int SockBufVect::SetSockBuffs(unsigned key, ISockBufOwner* owner) {
  SockBuf_reg* reg = Find(key);
  if (!reg)
    return 0;
  reg->SetSockBuffs(owner);
  return 1;
}

int SockBufVect::OpenUrl(unsigned key) {
  SockBuf_reg* reg = Find(key);
  return reg ? reg->OpenUrl() : 0;
}

int SockBufVect::SetBlock(unsigned key, int on) {
  SockBuf_reg* reg = Find(key);
  if (!reg)
    return 0;
  reg->SetBlock(on);
  return 1;
}

int SockBufVect::SetMediaId(unsigned key, unsigned mediaId) {
  SockBuf_reg* reg = Find(key);
  if (!reg)
    return 0;
  reg->SetMediaId(mediaId);
  return 1;
}

int SockBufVect::SetnPktWaitForDelayed(unsigned key, unsigned n) {
  SockBuf_reg* reg = Find(key);
  return reg ? reg->SetnPktWaitForDelayed(n) : 0;
}

int SockBufVect::SetTSFstPkt(unsigned key, unsigned ts) {
  SockBuf_reg* reg = Find(key);
  if (!reg)
    return 0;
  reg->SetTSFstPkt(ts);
  return 1;
}

int SockBufVect::GetTSFstPkt(unsigned key, unsigned* ts, unsigned* tick) {
  SockBuf_reg* reg = Find(key);
  if (!reg)
    return 0;
  reg->GetTSFstPkt(ts, tick);
  return 1;
}

unsigned SockBufVect::GetReadBitrate(unsigned key) {
  SockBuf_reg* reg = Find(key);
  return reg ? reg->GetReadBitrate() : 0;
}

unsigned SockBufVect::GetSaveBitrate(unsigned key) {
  SockBuf_reg* reg = Find(key);
  return reg ? reg->GetSaveBitrate() : 0;
}

unsigned SockBufVect::GetBufLen(unsigned key) {
  SockBuf_reg* reg = Find(key);
  return reg ? reg->GetBufLen() : 0;
}

ISockBuffExt* SockBufVect::GetObj(unsigned key) {
  SockBuf_reg* reg = Find(key);
  return reg ? reg->GetObj() : nullptr;
}

int SockBufVect::flush(unsigned key) {
  SockBuf_reg* reg = Find(key);
  if (!reg)
    return 0;
  reg->flush();
  return 1;
}

int SockBufVect::reset(unsigned key) {
  SockBuf_reg* reg = Find(key);
  if (!reg)
    return 0;
  reg->reset();
  reg->SetId(key);  // still filed under key
  return 1;
}

unsigned SockBufVect::GetId(unsigned mediaId) {
  if (mediaId == 0)
    return 0;
  // A walk of its own: the shared first/next cursor belongs to the caller.
  for (unsigned pos = 1;; ++pos) {
    unsigned key = 0;
    SockBuf_reg* reg = get_elem(pos, &key);
    if (!reg)
      return 0;
    if (reg->GetMediaId() == mediaId)
      return reg->GetId();
  }
}
