// destroy_with turns a destroy function of the toolkit into a deleter, so that each create/destroy
// pair has a std::unique_ptr owner declared beside it.
#pragma once

template <auto Destroy>
struct destroy_with {
    template <typename T>
    void operator()(T* object) const
    {
        Destroy(object);
    }
};
