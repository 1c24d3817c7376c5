// An extension of clang-tidy: the check lumatie-own-declarations finds nothing. It keeps the other
// ones from looking at the system's headers, of which they would report nothing, but which are most
// of what they have to read.

#include <clang-tidy/ClangTidyCheck.h>
#include <clang-tidy/ClangTidyModule.h>
#include <clang-tidy/ClangTidyModuleRegistry.h>
#include <clang/AST/ASTContext.h>

#include <vector>

namespace {

class OwnDeclarations : public clang::tidy::ClangTidyCheck
{
public:
    using ClangTidyCheck::ClangTidyCheck;

    void registerMatchers(clang::ast_matchers::MatchFinder* finder) override
    {
        finder->addMatcher(clang::ast_matchers::translationUnitDecl(), this);
    }

    // Called before any declaration in the unit is looked at.
    void check(const clang::ast_matchers::MatchFinder::MatchResult& result) override
    {
        std::vector<clang::Decl*> own;
        for (clang::Decl* declaration : result.Context->getTranslationUnitDecl()->decls()) {
            const clang::SourceLocation place =
                result.SourceManager->getExpansionLoc(declaration->getLocation());
            if (place.isValid() && !result.SourceManager->isInSystemHeader(place))
                own.push_back(declaration);
        }
        result.Context->setTraversalScope(own);
    }
};

class Module : public clang::tidy::ClangTidyModule
{
public:
    void addCheckFactories(clang::tidy::ClangTidyCheckFactories& factories) override
    {
        factories.registerCheck<OwnDeclarations>("lumatie-own-declarations");
    }
};

const clang::tidy::ClangTidyModuleRegistry::Add<Module> module("lumatie", "What lint adds.");

}  // namespace
