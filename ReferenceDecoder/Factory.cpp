#include "ReferenceDecoder.h"

#include "Codec.h"
#include "Pipelines.h"

namespace reference {

namespace {

class Factory : public Object<"IBlackmagicRawFactory", IBlackmagicRawFactory> {
public:
    HRESULT STDMETHODCALLTYPE CreateCodec(IBlackmagicRaw** codec) override {
        return cross<"IBlackmagicRawFactory::CreateCodec">([&] { return handOut(codec, new Codec); }, codec);
    }
    HRESULT STDMETHODCALLTYPE CreatePipelineIterator(BlackmagicRawInterop interop,
                                                     IBlackmagicRawPipelineIterator** iterator) override {
        return cross<"IBlackmagicRawFactory::CreatePipelineIterator">(
            [&] {
                return interop == blackmagicRawInteropNone ? handOut(iterator, new PipelineIterator)
                                                           : badArgument();
            },
            iterator);
    }
    HRESULT STDMETHODCALLTYPE
    CreatePipelineDeviceIterator(BlackmagicRawPipeline pipeline, BlackmagicRawInterop interop,
                                 IBlackmagicRawPipelineDeviceIterator** iterator) override {
        return cross<"IBlackmagicRawFactory::CreatePipelineDeviceIterator">(
            [&] {
                const Pipeline* offered = findPipeline(pipeline);
                if (!offered || interop != blackmagicRawInteropNone)
                    return badArgument();
                return handOut(iterator, new DeviceIterator(*offered));
            },
            iterator);
    }
    HRESULT STDMETHODCALLTYPE CreateClipGeometry(IBlackmagicRawClipGeometry** geometry) override {
        return cross<"IBlackmagicRawFactory::CreateClipGeometry">(
            [&] { return handOut(geometry, new Geometry); }, geometry);
    }
};

} // namespace

} // namespace reference

IBlackmagicRawFactory* STDMETHODCALLTYPE createReferenceDecoderFactory() {
    IBlackmagicRawFactory* factory = nullptr;
    reference::crossInto<"CreateBlackmagicRawFactoryInstance">(
        [&] { return reference::handOut(&factory, new reference::Factory); }, &factory);
    return factory;
}
