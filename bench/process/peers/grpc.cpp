// SPDX-License-Identifier: Apache-2.0
// Requests and replies with gRPC over a unix socket:
//
//   bench_peers_grpc server endpoint=PATH size=BYTES
//   bench_peers_grpc client endpoint=PATH size=BYTES operation=get|put|upload

#include <functional>
#include <map>
#include <string>

#include <grpcpp/grpcpp.h>

#include "../support/bench.h"
#include "bench.grpc.pb.h"

namespace {
using google::protobuf::BytesValue;
using google::protobuf::StringValue;

class Service : public bench::Data::Service {
public:
    explicit Service(std::size_t size) : body_(size, 'x') {}

    grpc::Status Get(grpc::ServerContext*, const StringValue*, BytesValue* reply) override
    {
        reply->set_value(body_);
        return grpc::Status::OK;
    }

    grpc::Status Put(grpc::ServerContext*, const BytesValue* request, StringValue*) override
    {
        return status_of(request->value().size());
    }

    grpc::Status Upload(grpc::ServerContext*, grpc::ServerReader<BytesValue>* reader, StringValue*) override
    {
        std::string uploaded;
        for (BytesValue chunk; reader->Read(&chunk);)
            uploaded += chunk.value();
        return status_of(uploaded.size());
    }

private:
    grpc::Status status_of(std::size_t size) const
    {
        return size == body_.size() ? grpc::Status::OK : grpc::Status(grpc::INVALID_ARGUMENT, "wrong size");
    }

    const std::string body_;
};

std::string address_of(const bench::Arguments& arguments)
{
    return "unix:" + arguments.text("endpoint");
}

void server(const bench::Arguments& arguments)
{
    Service service(static_cast<std::size_t>(arguments.number("size")));
    grpc::ServerBuilder builder;
    builder.AddListeningPort(address_of(arguments), grpc::InsecureServerCredentials());
    builder.RegisterService(&service);
    builder.SetMaxReceiveMessageSize(-1);
    const auto server = builder.BuildAndStart();
    bench::serve();
}

class Client {
public:
    explicit Client(const bench::Arguments& arguments)
        : body_(static_cast<std::size_t>(arguments.number("size")), 'x')
    {
        grpc::ChannelArguments channel;
        channel.SetMaxReceiveMessageSize(-1);
        stub_ = bench::Data::NewStub(
            grpc::CreateCustomChannel(address_of(arguments), grpc::InsecureChannelCredentials(), channel));
        path_.set_value("/data/0");
    }

    void get()
    {
        grpc::ClientContext context;
        BytesValue reply;
        const auto status = stub_->Get(&context, path_, &reply);
        check(status, reply.value().size());
    }

    void put()
    {
        grpc::ClientContext context;
        BytesValue request;
        request.set_value(body_);
        StringValue reply;
        check(stub_->Put(&context, request, &reply), body_.size());
    }

    void upload()
    {
        grpc::ClientContext context;
        StringValue reply;
        const auto writer = stub_->Upload(&context, &reply);
        BytesValue chunk;
        for (std::size_t sent = 0; sent < body_.size(); sent += bench::chunk_bytes) {
            chunk.set_value(body_.substr(sent, bench::chunk_bytes));
            writer->Write(chunk);
        }
        writer->WritesDone();
        check(writer->Finish(), body_.size());
    }

private:
    void check(const grpc::Status& status, std::size_t size) const
    {
        bench::require(status.ok() && size == body_.size(), status.error_message().c_str());
    }

    const std::string body_;
    StringValue path_;
    std::unique_ptr<bench::Data::Stub> stub_;
};

void client(const bench::Arguments& arguments)
{
    const std::map<std::string, void (Client::*)()> operations = {
        {"get", &Client::get},
        {"put", &Client::put},
        {"upload", &Client::upload},
    };
    Client client(arguments);
    bench::measure(std::bind(operations.at(arguments.text("operation")), &client));
}
} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, {{"server", server}, {"client", client}});
}
