#include "mom/engine/CVekUpdWork.h"

CVekUpdWork::CVekUpdWork(RvDatum* datum, CVekSnoop* snooper)
    : m_updDatum(datum), m_snooper(snooper) {}

CVekUpdWork::~CVekUpdWork() {
    delete m_updDatum;
}

RvDatum* CVekUpdWork::RUWDatum() {
    return m_updDatum;
}

CVekSnoop* CVekUpdWork::RUWSnooper() {
    return m_snooper;
}
