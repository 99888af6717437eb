// Writes a request's own settings into the decoder's processing attributes.
//
// An attribute that the decoder refuses is no failure when the decoder declares it read-only for this clip.
// The attribute objects belong to one request: used under its lock or before it is submitted. May throw
// std::bad_alloc.
#pragma once

#include <string_view>

#include "BlackmagicRawAPI.h"
#include "ProcessingSettings.h"
#include "Utils/vdStatus.h"

/// Where a value goes. Every call names a code on both sides; only the side that a value's type belongs to is
/// used, and its object is the one that must be there.
struct brAttribute {
    BlackmagicRawClipProcessingAttribute clipCode;
    BlackmagicRawFrameProcessingAttribute frameCode;
    std::string_view name; ///< for messages
};

/// Sets one attribute; `status` is written on failure only. 16-bit unsigned numbers, texts and switches are
/// the clip's, 32-bit unsigned and 16-bit signed numbers the frame's, and floats the clip's when it is given,
/// else the frame's.
void setAttribute(uint16_t value, const brAttribute& attribute, IBlackmagicRawClipProcessingAttributes* clip,
                  IBlackmagicRawFrameProcessingAttributes* frame, vdStatus& status);
/// Takes the string over. A null one is a string that could not be allocated.
void setAttribute(BSTR value, const brAttribute& attribute, IBlackmagicRawClipProcessingAttributes* clip,
                  IBlackmagicRawFrameProcessingAttributes* frame, vdStatus& status);
void setAttribute(bool value, const brAttribute& attribute, IBlackmagicRawClipProcessingAttributes* clip,
                  IBlackmagicRawFrameProcessingAttributes* frame, vdStatus& status);
void setAttribute(float value, const brAttribute& attribute, IBlackmagicRawClipProcessingAttributes* clip,
                  IBlackmagicRawFrameProcessingAttributes* frame, vdStatus& status);
void setAttribute(uint32_t value, const brAttribute& attribute, IBlackmagicRawClipProcessingAttributes* clip,
                  IBlackmagicRawFrameProcessingAttributes* frame, vdStatus& status);
void setAttribute(int16_t value, const brAttribute& attribute, IBlackmagicRawClipProcessingAttributes* clip,
                  IBlackmagicRawFrameProcessingAttributes* frame, vdStatus& status);

/// Whether the decoder declares the attribute read-only, asked of the clip's object when it is given, else of
/// the frame's. Gives the result of the last question; the flag is false unless an answer says otherwise.
HRESULT checkAttributeReadOnly(IBlackmagicRawClipProcessingAttributes* clip,
                               IBlackmagicRawFrameProcessingAttributes* frame, const brAttribute& attribute,
                               bool& isReadOnly);

/// Sends the whole record; stops at the first failure and gives it back.
vdStatus applyClipSettings(IBlackmagicRawClipProcessingAttributes* attributes,
                           const brClipProcessingSettings& settings);
vdStatus applyFrameSettings(IBlackmagicRawFrameProcessingAttributes* attributes,
                            const brFrameProcessingSettings& settings);
