#include "element_fixture.h"

#include <algorithm>

void ElementTest::SetUp()
{
    m_pElement = gst_element_factory_make("qvjtrenderer", nullptr);
    ASSERT_NE(m_pElement, nullptr);
    gst_object_ref_sink(m_pElement);
}

void ElementTest::TearDown()
{
    if (m_pElement) {
        gst_element_set_state(m_pElement, GST_STATE_NULL);
        gst_object_unref(m_pElement);
    }
}

std::vector<std::string> ElementTest::pad_names() const
{
    std::vector<std::string> names;
    GST_OBJECT_LOCK(m_pElement);
    for (GList* l = GST_ELEMENT(m_pElement)->pads; l; l = l->next)
        names.emplace_back(GST_OBJECT_NAME(l->data));
    GST_OBJECT_UNLOCK(m_pElement);
    return names;
}

bool ElementTest::has_pad(const char* pName) const
{
    const auto names = pad_names();
    return std::find(names.begin(), names.end(), pName) != names.end();
}
