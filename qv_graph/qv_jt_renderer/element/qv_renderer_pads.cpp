// Renderer side of the sink pads: making, adding and removing them.
#include "qv_renderer.h"

#include "gstqvjtrenderer.h"
#include "qv_pad_templates.h"

#include <string>

namespace {

QV_DEFINE_PAD_TEMPLATES(renderer_template);

enum { tpl_video, tpl_audio, tpl_teletext, tpl_scte35, tpl_scte104, tpl_vbi, tpl_count };

GstStaticPadTemplate* const k_templates[tpl_count] = {
    &renderer_template_video,  &renderer_template_audio,   &renderer_template_teletext,
    &renderer_template_scte35, &renderer_template_scte104, &renderer_template_vbi,
};

} // namespace

qv_pad_holder::qv_pad_holder(GstPad* pPad)
{
    reset(pPad);
}

qv_pad_holder::~qv_pad_holder()
{
    reset();
}

void qv_pad_holder::reset(GstPad* pPad)
{
    if (pPad)
        gst_object_ref_sink(pPad);
    if (m_pPad)
        gst_object_unref(m_pPad);
    m_pPad = pPad;
}

GstStaticPadTemplate* qv_renderer::pad_template(int nIndex)
{
    return nIndex >= 0 && nIndex < tpl_count ? k_templates[nIndex] : nullptr;
}

GstPad* qv_renderer::make_pad(int nTemplate, const char* pName)
{
    GstPad* pPad = gst_pad_new_from_static_template(k_templates[nTemplate], pName);
    switch (nTemplate) {
    case tpl_video:
        gst_pad_set_event_function(pPad, gst_pad_video_sink_event);
        gst_pad_set_chain_function(pPad, gst_pad_video_chain);
        gst_pad_set_link_function(pPad, gst_pad_video_link);
        gst_pad_set_unlink_function(pPad, gst_pad_video_unlink);
        break;
    case tpl_audio:
        gst_pad_set_event_function(pPad, gst_pad_audio_sink_event);
        gst_pad_set_chain_function(pPad, gst_pad_audio_chain);
        gst_pad_set_link_function(pPad, gst_pad_accept_link);
        gst_pad_set_unlink_function(pPad, gst_pad_ignore_unlink);
        break;
    default:
        gst_pad_set_event_function(pPad, gst_pad_data_sink_event);
        gst_pad_set_link_function(pPad, gst_pad_accept_link);
        gst_pad_set_unlink_function(pPad, gst_pad_ignore_unlink);
        gst_pad_set_chain_function(pPad, nTemplate == tpl_teletext  ? gst_pad_teletext_chain
                                         : nTemplate == tpl_scte104 ? gst_pad_scte104_chain
                                         : nTemplate == tpl_scte35  ? gst_pad_scte35_chain
                                                                    : gst_pad_vbi_chain);
        break;
    }
    GST_PAD_SET_PROXY_CAPS(pPad);
    return pPad;
}

bool qv_renderer::add_pad(GstPad* pPad)
{
    if (!m_pElement || !pPad)
        return false;
    return gst_element_add_pad(GST_ELEMENT(m_pElement), pPad) != FALSE;
}

bool qv_renderer::remove_pad(GstPad* pPad)
{
    if (!m_pElement || !pPad || GST_OBJECT_PARENT(pPad) != GST_OBJECT(m_pElement))
        return false;
    return gst_element_remove_pad(GST_ELEMENT(m_pElement), pPad) != FALSE;
}

bool qv_renderer::create_video_pad()
{
    m_video_pad.reset(make_pad(tpl_video, "sink_video"));
    return add_pad(m_video_pad.get());
}

bool qv_renderer::create_teletext_pad()
{
    m_teletext_pad.reset(make_pad(tpl_teletext, "sink_teletext"));
    return add_pad(m_teletext_pad.get());
}

// The SCTE pads are named without the underscore their templates carry.
bool qv_renderer::create_scte104_pad()
{
    m_scte104_pad.reset(make_pad(tpl_scte104, "sink_scte104"));
    return add_pad(m_scte104_pad.get());
}

bool qv_renderer::create_scte35_pad()
{
    m_scte35_pad.reset(make_pad(tpl_scte35, "sink_scte35"));
    return add_pad(m_scte35_pad.get());
}

bool qv_renderer::create_vbi_pad(bool bAdd)
{
    m_vbi_pad.reset(make_pad(tpl_vbi, "sink_vbi"));
    return bAdd ? add_pad(m_vbi_pad.get()) : true;
}

// Audio pads are sink pads named "src_audio<n>"; applications link by these names.
bool qv_renderer::create_audio_pad(unsigned long n)
{
    const std::string name = "src_audio" + std::to_string(n);
    auto pRecord = std::make_shared<_qv_audio_pad>();
    pRecord->pad.reset(make_pad(tpl_audio, name.c_str()));
    pRecord->nIndex = n;
    if (!add_pad(pRecord->pad.get()))
        return false;
    m_list_audio_pad.push_back(std::move(pRecord));
    return true;
}

void qv_renderer::delete_audio_pad()
{
    if (m_list_audio_pad.empty())
        return;
    remove_pad(m_list_audio_pad.back()->pad.get());
    m_list_audio_pad.pop_back();
}

bool qv_renderer::update_audio_pad(unsigned long n)
{
    if (!m_pElement)
        return false;
    while (m_list_audio_pad.size() > n)
        delete_audio_pad();
    while (m_list_audio_pad.size() < n) {
        if (!create_audio_pad(m_list_audio_pad.size()))
            break; // the property then reads back the pads that exist
    }
    return true;
}

bool qv_renderer::update_vbi_pad(bool bUse)
{
    if (!m_pElement)
        return false;
    if (m_bUseVBI == bUse)
        return true;
    if (bUse) {
        remove_pad(m_scte35_pad.get());
        remove_pad(m_scte104_pad.get());
        remove_pad(m_teletext_pad.get());
        add_pad(m_vbi_pad.get());
    } else {
        remove_pad(m_vbi_pad.get());
        add_pad(m_scte35_pad.get());
        add_pad(m_scte104_pad.get());
        add_pad(m_teletext_pad.get());
    }
    m_bUseVBI = bUse;
    return true;
}

bool qv_renderer::isConnect(GstPad* pPad)
{
    if (!pPad)
        return false;
    GstPad* pPeer = gst_pad_get_peer(pPad);
    if (!pPeer)
        return false;
    gst_object_unref(pPeer);
    return true;
}

bool qv_renderer::isAudioConnect() const
{
    for (const auto& p : m_list_audio_pad) {
        if (isConnect(p->pad.get()))
            return true;
    }
    return false;
}

bool qv_renderer::send_upstream(GstEvent* pEvent)
{
    // A seek from the application goes up one linked pad, the pictures' when
    // linked: a demuxer feeding several pads seeks all of them at once.
    GstPad* pPad = isConnect(m_video_pad.get()) ? GST_PAD(gst_object_ref(m_video_pad.get())) : nullptr;
    if (!pPad) {
        GstElement* pElement = GST_ELEMENT(m_pElement);
        GST_OBJECT_LOCK(pElement);
        for (GList* l = pElement->sinkpads; l && !pPad; l = l->next)
            if (gst_pad_is_linked(GST_PAD(l->data)))
                pPad = GST_PAD(gst_object_ref(l->data));
        GST_OBJECT_UNLOCK(pElement);
    }
    if (!pPad) {
        gst_event_unref(pEvent);
        return false;
    }
    const bool bOk = gst_pad_push_event(pPad, pEvent);
    gst_object_unref(pPad);
    return bOk;
}
